// A page's "flashvars" text and the player description in it.
#include "FuzzSupport.h"
#include "HostEvents.h"
#include "PlayerDescription.h"
#include "utils.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

constexpr int longestForPlain = 500;

using Streams = QList<PlayerDescription::Stream>;

/// The rule of piecesIn() word for word.
QByteArray plainPieces(const QString &flashVars)
{
    QByteArray pieces;
    for (const QString &variable : flashVars.split(QLatin1Char('&'))) {
        const QString capture = Utils::RegexString(variable, QStringLiteral("sequence=(.*)"));
        pieces += QByteArray::fromPercentEncoding(capture.toUtf8());
    }
    return pieces;
}

QJsonObject nested(const QString &listName, const QJsonObject &item)
{
    return {{listName, QJsonArray{item}}};
}

/// A description that names one stream.
QByteArray descriptionOf(const PlayerDescription::Stream &stream)
{
    const QString address =
        QString::fromLatin1(stream.address.toUtf8().toPercentEncoding(QByteArray(), "\\"));
    QJsonObject inner{
        {QStringLiteral("name"), QStringLiteral("video")},
        {QStringLiteral("param"), QJsonObject{{stream.quality + QLatin1String("URL"), address}}}};
    QJsonObject entry = nested(QStringLiteral("layerList"), inner);
    entry.insert(QStringLiteral("name"), QStringLiteral("main"));
    const QJsonObject layer = nested(QStringLiteral("sequenceList"), entry);
    const QJsonObject item = nested(QStringLiteral("layerList"), layer);
    return QJsonDocument(nested(QStringLiteral("sequence"), item)).toJson(QJsonDocument::Compact);
}

void checkStream(const PlayerDescription::Stream &stream)
{
    static const QStringList qualities{QStringLiteral("hd1080"), QStringLiteral("hd720"),
                                       QStringLiteral("hq"), QStringLiteral("sd"),
                                       QStringLiteral("ld")};
    FUZZ_CHECK(!stream.address.isEmpty() && qualities.contains(stream.quality));
    HostEvents::send(event::CandidateFound{stream.address});

    const QByteArray description = descriptionOf(stream);
    const QString flashVars = QLatin1String("a=1&sequence=")
        + QString::fromLatin1(description.toPercentEncoding()) + QLatin1String("&b=2");
    FUZZ_CHECK(PlayerDescription::piecesIn(flashVars) == description);
    const Streams again = PlayerDescription::streams(description);
    FUZZ_CHECK(again.size() == 1 && again.constFirst().quality == stream.quality);
    FUZZ_CHECK(again.constFirst().address == fuzz::text(stream.address.toUtf8()));
}

void checkStreams(const QByteArray &description)
{
    const Streams streams = PlayerDescription::streams(description);
    FUZZ_CHECK(streams.size() <= description.size());
    for (const PlayerDescription::Stream &stream : streams)
        checkStream(stream);
    FUZZ_CHECK(fuzz::takeLines().size() == streams.size());
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    const QByteArray input = fuzz::bytes(data, size);
    const QString flashVars = fuzz::text(input);
    const QByteArray pieces = PlayerDescription::piecesIn(flashVars);
    if (flashVars.size() <= longestForPlain)
        FUZZ_CHECK(pieces == plainPieces(flashVars));
    checkStreams(pieces);
    checkStreams(input);
    return 0;
}
