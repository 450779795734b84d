#include "JsonRenderer.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <initializer_list>
#include <utility>

namespace {

using Members = std::initializer_list<std::pair<const char *, QJsonValue>>;

QJsonObject object(const char *name, Members members = {})
{
    QJsonObject result{{QStringLiteral("event"), QLatin1String(name)}};
    for (const auto &member : members)
        result.insert(QLatin1String(member.first), member.second);
    return result;
}

QLatin1String wordOf(event::What what)
{
    return QLatin1String(what == event::What::Video ? "video" : "thumb");
}

QLatin1String wordOf(event::Outcome outcome)
{
    switch (outcome) {
    case event::Outcome::Succeeded:
        return QLatin1String("success");
    case event::Outcome::Canceled:
        return QLatin1String("canceled");
    case event::Outcome::Failed:
        break;
    }
    return QLatin1String("failed");
}

QLatin1String wordOf(event::Unit unit)
{
    return QLatin1String(unit == event::Unit::Bytes ? "bytes" : "fragments");
}

QJsonValue textOrNull(const QString &text)
{
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

QJsonValue timeOrNull(const QDateTime &time)
{
    return time.isValid() ? QJsonValue(time.toUTC().toString(Qt::ISODateWithMs)) : QJsonValue();
}

QJsonArray arrayOf(const QList<int> &numbers)
{
    QJsonArray array;
    for (const int number : numbers)
        array += number;
    return array;
}

/// One function for each kind of event: a kind without one does not build.
struct Objects
{
    QJsonObject operator()(const event::ParsingBegun &event) const
    {
        return object("page", {{"url", event.pageUrl}});
    }

    QJsonObject operator()(const event::CandidateFound &event) const
    {
        return object("candidate", {{"url", event.address}});
    }

    QJsonObject operator()(const event::RecordMade &event) const
    {
        return object("record", {{"record", QJsonDocument::fromJson(event.json).object()}});
    }

    QJsonObject operator()(const event::ParsingFailed &) const { return object("parseFailed"); }

    QJsonObject operator()(const event::Exiting &) const { return object("exiting"); }

    QJsonObject operator()(const event::ExitFlagSet &) const { return object("exitFlagSet"); }

    QJsonObject operator()(const event::MemoryDetached &) const { return object("memoryDetached"); }

    QJsonObject operator()(const event::DisplayMissing &) const { return object("displayMissing"); }

    QJsonObject operator()(const event::EngineMissing &event) const
    {
        return object("engineMissing", {{"path", event.path}});
    }

    QJsonObject operator()(const event::SavePathUnreadable &) const
    {
        return object("savePathUnreadable");
    }

    QJsonObject operator()(const event::FlashVersion &event) const
    {
        return object("flashVersion", {{"flashVersion", event.version}});
    }

    QJsonObject operator()(const event::UsageLine &event) const
    {
        return object("usage", {{"text", event.text}});
    }

    QJsonObject operator()(const event::DownloadBegun &event) const
    {
        return object("transferBegun",
                      {{"kind", wordOf(event.what)},
                       {"url", textOrNull(event.address)},
                       {"path", textOrNull(event.path)}});
    }

    QJsonObject operator()(const event::Progress &event) const
    {
        const bool isTotalKnown = event.total > 0 && event.total >= event.done;
        return object("progress",
                      {{"kind", wordOf(event::What::Video)},
                       {"unit", wordOf(event.unit)},
                       {"done", event.done},
                       {"total", isTotalKnown ? QJsonValue(event.total) : QJsonValue()},
                       {"rate", QJsonValue()}});
    }

    QJsonObject operator()(const event::DownloadEnded &event) const
    {
        return object("transferEnded",
                      {{"kind", wordOf(event.what)}, {"outcome", wordOf(event.outcome)}});
    }

    QJsonObject operator()(const event::DownloadRetried &event) const
    {
        return object("retry",
                      {{"kind", wordOf(event::What::Video)},
                       {"attempt", event.attempt},
                       {"most", event.most},
                       {"pauseMs", event.pauseMs},
                       {"cause", RunClasses::rowOf(event.cause).name}});
    }

    QJsonObject operator()(const event::DownloadResumed &event) const
    {
        return object("resumed",
                      {{"kind", wordOf(event::What::Video)}, {"fromByte", event.fromByte}});
    }

    QJsonObject operator()(const event::DownloadBegunAgain &event) const
    {
        return object("begunAgain",
                      {{"kind", wordOf(event::What::Video)}, {"reason", event.reason}});
    }

    QJsonObject operator()(const event::PartsMissing &event) const
    {
        return object("partsMissing",
                      {{"kind", wordOf(event::What::Video)},
                       {"missing", event.missing},
                       {"total", event.total}});
    }

    QJsonObject operator()(const event::StreamRefused &event) const
    {
        return object("streamRefused",
                      {{"cause", RunClasses::rowOf(event.cause).name}, {"reason", event.reason}});
    }

    QJsonObject operator()(const event::Warning &event) const
    {
        return object("warning", {{"text", event.text}});
    }

    QJsonObject operator()(const event::RunEnded &event) const
    {
        return object("result",
                      {{"class", RunClasses::rowOf(event.runClass).name},
                       {"classCode", RunClasses::exitCodeOf(event.runClass)},
                       {"exitCode", event.exitCode},
                       {"path", textOrNull(event.path)},
                       {"bytes", event.bytes >= 0 ? QJsonValue(event.bytes) : QJsonValue()},
                       {"sha256", textOrNull(QString::fromLatin1(event.sha256.toHex()))},
                       {"startedAt", timeOrNull(event.startedAt)},
                       {"analysedAt", timeOrNull(event.analysedAt)},
                       {"endedAt", timeOrNull(event.endedAt)}});
    }

    QJsonObject operator()(const event::PartsEnded &event) const
    {
        return object("partsEnded", {{"succeeded", event.haveSucceeded}});
    }

    QJsonObject operator()(const event::PartsFinished &) const { return object("partsFinished"); }

    QJsonObject operator()(const event::OutputFolder &event) const
    {
        return object("outputFolder", {{"path", event.path}});
    }

    QJsonObject operator()(const event::RtmpdumpStarted &event) const
    {
        return object("rtmpdumpStarted",
                      {{"arguments", QJsonArray::fromStringList(event.arguments)}});
    }

    QJsonObject operator()(const event::StreamOptionSet &event) const
    {
        return object("streamOption", {{"name", event.name}, {"value", event.value}});
    }

    QJsonObject operator()(const event::StreamProxySet &event) const
    {
        return object("streamProxy",
                      {{"type", event.type}, {"host", event.host}, {"port", event.port}});
    }

    QJsonObject operator()(const event::PageAsked &event) const
    {
        return object(
            "documentAsked",
            {{"url", event.address}, {"method", QLatin1String(event.isPosted ? "POST" : "GET")}});
    }

    QJsonObject operator()(const event::PageRedirected &event) const
    {
        return object("documentRedirected", {{"url", event.target}});
    }

    QJsonObject operator()(const event::ManifestBegun &) const { return object("manifestBegun"); }

    QJsonObject operator()(const event::ManifestMissing &event) const
    {
        return object("manifestMissing", {{"url", event.address}});
    }

    QJsonObject operator()(const event::XmlBroken &event) const
    {
        return object("xmlBroken", {{"line", event.line}, {"column", event.column}});
    }

    QJsonObject operator()(const event::RenditionsFound &event) const
    {
        return object("renditions", {{"bitrates", arrayOf(event.bitrates)}});
    }

    QJsonObject operator()(const event::RenditionChosen &event) const
    {
        return object("renditionChosen", {{"bitrate", event.bitrate}});
    }

    QJsonObject operator()(const event::RenditionMissing &) const
    {
        return object("renditionMissing");
    }

    QJsonObject operator()(const event::BootstrapFailed &) const
    {
        return object("bootstrapFailed");
    }

    QJsonObject operator()(const event::BootstrapMissing &) const
    {
        return object("bootstrapMissing");
    }

    QJsonObject operator()(const event::BootstrapBroken &) const
    {
        return object("bootstrapBroken");
    }

    QJsonObject operator()(const event::StreamEmpty &) const { return object("streamEmpty"); }

    QJsonObject operator()(const event::FragmentsCounted &event) const
    {
        return object("fragmentsCounted", {{"count", event.count}});
    }
};

} // namespace

QJsonObject JsonRenderer::objectOf(const HostEvent &event)
{
    return std::visit(Objects(), event);
}
