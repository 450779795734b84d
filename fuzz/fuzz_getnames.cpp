// What the command for people makes of a page's words: names of files, lines of a terminal, merged
// events. The input is a template, a line end, and the words; or the output of a run.
#include "EventReader.h"
#include "FuzzSupport.h"
#include "JsonOutput.h"
#include "NameTemplate.h"
#include "PageLine.h"
#include "SafeText.h"
#include "TextWidth.h"

#include <QJsonDocument>

namespace {

constexpr int columns = 40;
constexpr int mostNameBytes = 200;

bool isClean(const QString &text)
{
    return SafeText::line(text, text.size() + 1) == text;
}

void checkNames(const QString &form, const PageFacts &page)
{
    QString reason;
    const auto parsed = NameTemplate::parse(form, &reason);
    FUZZ_CHECK(parsed || !reason.isEmpty());
    if (!parsed)
        return;
    const QString name = parsed->nameFor(page, page.format);
    const QStringList parts = name.split(QLatin1Char('/'));
    // The slashes are those of the template.
    FUZZ_CHECK(parts.size() == form.split(QLatin1Char('/')).size());
    for (const QString &part : parts) {
        FUZZ_CHECK(!part.isEmpty() && part != QLatin1String(".") && part != QLatin1String(".."));
        FUZZ_CHECK(part.toUtf8().size() <= mostNameBytes);
    }
}

void checkLines(const PageFacts &page)
{
    FUZZ_CHECK(isClean(SafeText::line(page.title)));
    const QString part = SafeText::namePart(page.title);
    FUZZ_CHECK(!part.contains(QLatin1Char('/')) && !part.startsWith(QLatin1Char('.')));
    const QString line = pageLine(page, PageProgress(), columns);
    FUZZ_CHECK(TextWidth::of(line) <= columns);
    FUZZ_CHECK(TextWidth::of(TextWidth::fitted(part, columns)) == columns);
}

void checkEvents(const QByteArray &output)
{
    EventReader reader([](const QJsonObject &event, const QByteArray &line) {
        const QByteArray merged = JsonOutput::withPage(line, QStringLiteral("http://h.test/"));
        QJsonObject again = QJsonDocument::fromJson(merged).object();
        FUZZ_CHECK(again.contains(QLatin1String("event")));
        FUZZ_CHECK(again.value(QLatin1String("event")) == event.value(QLatin1String("event")));
        FUZZ_CHECK(!merged.contains('\n') && !merged.contains('\x7f') && !merged.contains('\x1b'));
    });
    reader.take(output.left(output.size() / 2));
    reader.take(output.mid(output.size() / 2));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    const QByteArray bytes = fuzz::bytes(data, size);
    const int end = bytes.indexOf('\n');
    PageFacts page;
    page.address = QStringLiteral("http://h.test/a/b.html");
    page.title = QString::fromUtf8(bytes.mid(end + 1));
    page.format = page.title.left(8);
    checkNames(QString::fromUtf8(bytes.left(qMax(0, end))), page);
    checkNames(QStringLiteral("{title}.{ext}"), page);
    checkLines(page);
    checkEvents(bytes);
    return 0;
}
