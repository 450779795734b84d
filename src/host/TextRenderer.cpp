#include "TextRenderer.h"

#include "HostLine.h"

namespace {

QString fixed(const char *text)
{
    return HostLine().text(QLatin1String(text)).toString();
}

QString composed(const QString &text)
{
    return HostLine().quoted(text).toString();
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

/// One function for each kind of event: a kind without one does not build.
struct Lines
{
    QString operator()(const event::ParsingBegun &event) const
    {
        return HostLine().quoted(event.pageUrl).text(QStringLiteral("parsing...")).toString();
    }

    QString operator()(const event::CandidateFound &event) const
    {
        return HostLine().text(QStringLiteral("videoUrl:")).quoted(event.address).toString();
    }

    QString operator()(const event::RecordMade &event) const
    {
        return composed(QString::fromUtf8(event.json));
    }

    QString operator()(const event::ParsingFailed &) const { return fixed("parse failed"); }

    QString operator()(const event::Exiting &) const { return fixed("exiting..."); }

    QString operator()(const event::ExitFlagSet &) const { return fixed("set ExitFlag"); }

    QString operator()(const event::MemoryDetached &) const { return fixed("detach sharememory"); }

    QString operator()(const event::EngineMissing &missing) const
    {
        return HostLine()
            .text(QStringLiteral("no page engine is installed at"))
            .quoted(missing.path)
            .toString();
    }

    QString operator()(const event::DisplayMissing &) const
    {
        return fixed("no display can be reached");
    }

    QString operator()(const event::SavePathUnreadable &) const
    {
        return fixed("the path of --saveto is not UTF-8");
    }

    QString operator()(const event::FlashVersion &event) const
    {
        return HostLine::onOneLine(
            QStringLiteral("You have Flash player %1 installed").arg(event.version));
    }

    QString operator()(const event::UsageLine &event) const
    {
        return HostLine::onOneLine(event.text);
    }

    QString operator()(const event::DownloadBegun &event) const
    {
        return HostLine()
            .text(QLatin1String("start download ") + wordOf(event.what) + QLatin1String(" ..."))
            .toString();
    }

    QString operator()(const event::Progress &event) const
    {
        return composed(QStringLiteral("downloaded:%1/%2").arg(event.done).arg(event.total));
    }

    QString operator()(const event::DownloadEnded &event) const
    {
        return HostLine()
            .text(wordOf(event.what) + QLatin1String(" download finished:") + wordOf(event.outcome))
            .toString();
    }

    QString operator()(const event::PartsEnded &event) const
    {
        return fixed(event.haveSucceeded ? "video download success" : "video download failed");
    }

    QString operator()(const event::PartsFinished &) const
    {
        return fixed("video download finished");
    }

    QString operator()(const event::OutputFolder &event) const { return composed(event.path); }

    QString operator()(const event::RtmpdumpStarted &event) const
    {
        return HostLine().list(event.arguments).toString();
    }

    QString operator()(const event::StreamOptionSet &event) const
    {
        return composed(QStringLiteral("setOption: %1=%2").arg(event.name, event.value));
    }

    QString operator()(const event::StreamProxySet &event) const
    {
        return composed(
            QStringLiteral("setOption: proxy proxyType =%1 proxyHost = %2 proxyPort = %3")
                .arg(QString::number(event.type), event.host, QString::number(event.port)));
    }

    QString operator()(const event::PageAsked &event) const
    {
        return HostLine()
            .text(QLatin1String(event.isPosted ? "Post page:" : "Get page:"))
            .quoted(event.address)
            .toString();
    }

    QString operator()(const event::PageRedirected &event) const
    {
        // A space of its own before the one between the pieces.
        return HostLine().text(QStringLiteral("Redirect to: ")).quoted(event.target).toString();
    }

    QString operator()(const event::ManifestBegun &) const
    {
        return fixed("Processing manifest info....");
    }

    QString operator()(const event::ManifestMissing &event) const
    {
        return composed(QStringLiteral("access %1 failed!").arg(event.address));
    }

    QString operator()(const event::XmlBroken &event) const
    {
        return HostLine()
            .text(QStringLiteral("Error:Parse error at line:"))
            .text(QString::number(event.line))
            .text(QStringLiteral("column"))
            .text(QString::number(event.column))
            .toString();
    }

    QString operator()(const event::RenditionsFound &event) const
    {
        QString bitrates;
        for (const int bitrate : event.bitrates)
            bitrates += QStringLiteral(" %1 ").arg(bitrate);
        return composed(QLatin1String("all quality:") + bitrates);
    }

    QString operator()(const event::RenditionChosen &event) const
    {
        return composed(QStringLiteral("select quality:%1").arg(event.bitrate));
    }

    QString operator()(const event::RenditionMissing &) const { return fixed("select quality:-1"); }

    QString operator()(const event::BootstrapFailed &) const
    {
        return fixed("UpdateBootstrapInfo error!");
    }

    QString operator()(const event::BootstrapMissing &) const
    {
        return fixed("manifest xml not contains bootstrap!");
    }

    QString operator()(const event::BootstrapBroken &) const
    {
        return fixed("stream box is not start abst, is not f4f stream!");
    }

    QString operator()(const event::StreamEmpty &) const
    {
        return fixed("stream fragCount = 0, no stream data!");
    }

    QString operator()(const event::FragmentsCounted &event) const
    {
        return composed(QStringLiteral("FragCount:%1").arg(event.count));
    }

    QString operator()(const event::StreamRefused &event) const
    {
        return HostLine().text(QStringLiteral("stream refused:")).quoted(event.reason).toString();
    }

    // What has no line.
    std::nullopt_t operator()(const event::DownloadRetried &) const { return std::nullopt; }
    std::nullopt_t operator()(const event::DownloadResumed &) const { return std::nullopt; }
    std::nullopt_t operator()(const event::DownloadBegunAgain &) const { return std::nullopt; }
    std::nullopt_t operator()(const event::PartsMissing &) const { return std::nullopt; }
    std::nullopt_t operator()(const event::Warning &) const { return std::nullopt; }
    std::nullopt_t operator()(const event::RunEnded &) const { return std::nullopt; }
};

} // namespace

std::optional<QString> TextRenderer::lineOf(const HostEvent &event)
{
    return std::visit([](const auto &kind) -> std::optional<QString> { return Lines()(kind); },
                      event);
}
