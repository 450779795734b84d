// A manifest, what it sends the parser to, and the rendition that is chosen. The word "NEXT" keeps
// the manifest and the texts that are fetched after it apart, in the order they are asked for.
#include "AdobeData.h"
#include "AdobeParser.h"
#include "AdobePreference.h"
#include "FuzzSupport.h"
#include "XPathDocument.h"

#include <QXmlStreamReader>

#include <algorithm>

namespace {

constexpr int maxFileNameBytes = 255;

/// The number of elements in a well-formed text. Its declaration may be anything: what it says is
/// of no use to characters.
int elementsIn(QString xml)
{
    if (xml.startsWith(QChar(0xFEFF)))
        xml.remove(0, 1);
    if (xml.startsWith(QLatin1String("<?xml ")))
        xml.remove(0, xml.indexOf(QLatin1String("?>")) + 2);
    int elements = 0;
    for (QXmlStreamReader reader(xml); !reader.atEnd(); reader.readNext())
        elements += reader.isStartElement();
    return elements;
}

void checkDocument(const QString &xml)
{
    XPathDocument document(xml);
    const QStringList counts = document.strings(QStringLiteral("string(count(//*))"));
    const int selected = document.select(QStringLiteral("//*"));
    FUZZ_CHECK(document.isUsable() == !counts.isEmpty());
    FUZZ_CHECK(document.stringsAt(selected, QStringLiteral("string()")).isEmpty());
    if (!document.isUsable()) {
        FUZZ_CHECK(selected == 0);
        return;
    }
    const int elements = elementsIn(xml);
    FUZZ_CHECK(selected == elements && counts == QStringList{QString::number(elements)});
    FUZZ_CHECK(document.stringsAt(0, QStringLiteral("name()")).size() == 1);
}

void checkAddresses()
{
    const CAdobeData *const data = CAdobeData::GetInstance();
    const QString name = data->GetBaseFileName(3) + QString::number(12345);
    FUZZ_CHECK(!name.contains(QLatin1Char('/')) && !name.contains(QChar(0)));
    FUZZ_CHECK(name.toUtf8().size() <= maxFileNameBytes && name.size() > 2);
    FUZZ_CHECK(name.contains(QLatin1String("Seg3-Frag")));
    FUZZ_CHECK(data->GetFragUrl(3, 4).endsWith(QLatin1String("Seg3-Frag4")));
}

void checkChoice(CAdobeParser &parser, const QString &allQualities)
{
    for (const int quality : {0, 1, 800, -5}) {
        CAdobePreference::GetInstance()->SetOption(QStringLiteral("quality"), quality);
        parser.SelectMedia();
        const QVariantMap media = CAdobeData::GetInstance()->GetMedia();
        if (media.isEmpty())
            continue;
        FUZZ_CHECK(allQualities.contains(
            QStringLiteral(" %1 ").arg(media.value(QStringLiteral("bitrate")).toInt())));
        checkAddresses();
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    QStringList texts;
    for (const QByteArray &part : fuzz::split(fuzz::bytes(data, size), QByteArrayLiteral("NEXT")))
        texts += fuzz::text(part);
    std::for_each(texts.cbegin(), texts.cend(), checkDocument);

    CAdobePreference::GetInstance()->Reset();
    CAdobePreference::GetInstance()->SetOption(QStringLiteral("manifest"),
                                               QStringLiteral("http://h.test/dir/main.f4m?a=b"));
    CAdobeData::GetInstance()->Reset();
    CAdobeParser parser(StopFlag(), [&texts](const QString &) {
        return texts.isEmpty() ? QString() : texts.takeFirst();
    });
    const bool isParsed = parser.parseManifest();
    FUZZ_CHECK(isParsed == (CAdobeData::GetInstance()->GetFragCount() > 0));
    FUZZ_CHECK(!isParsed || !CAdobeData::GetInstance()->GetMedia().isEmpty());
    const QStringList qualities = fuzz::takeLines().filter(QStringLiteral("all quality:"));
    FUZZ_CHECK(qualities.size() <= 1);
    checkChoice(parser, qualities.value(0));
    return 0;
}
