#include "HdsTransfer.h"

#include "HostEvents.h"

namespace {

QString queryOf(const QString &address)
{
    const int mark = address.indexOf(QLatin1Char('?'));
    return mark > 0 ? address.mid(mark + 1) : QString();
}

/// Whether a text of the page or the caller would be taken for an option of its own.
bool isLikeOption(const QString &text)
{
    return text.startsWith(QLatin1String("--"));
}

} // namespace

HdsTransfer::HdsTransfer(const Wish &wish, QObject *parent)
    : Transfer(parent)
    , m_wish(wish)
    , m_session(std::make_shared<HdsSession>())
    , m_downloader(m_session)
{
    connect(&m_downloader, &CAdobeDownloader::AdobeActive, this, [this] {
        emit progressed(m_session->output.GetWriteFragNum(), m_session->data.GetFragCount());
    });
    connect(&m_downloader, &CAdobeDownloader::finished, this,
            [this](int result) { emit ended(static_cast<Outcome>(result)); });
}

TransferReport HdsTransfer::report(Outcome outcome) const
{
    TransferReport report = Transfer::report(outcome);
    const CAdobeOutputFile &output = m_session->output;
    if (output.failure())
        report.runClass = *output.failure();
    else if (!output.GetLosses().isNone())
        report.runClass = RunClass::Incomplete;
    return report;
}

void HdsTransfer::start()
{
    if (m_isStarted)
        return;
    m_isStarted = true;
    if (!m_isCancelled)
        setOptions();
    m_downloader.Download();
}

void HdsTransfer::cancel()
{
    m_isCancelled = true;
    m_downloader.Cancel();
}

void HdsTransfer::setOptions()
{
    HostEvents::send(event::OutputFolder{m_wish.outDir});
    CAdobePreference &options = m_session->options;
    options.parseParams(arguments());
    setOption(QStringLiteral("outFile"), m_wish.outFile);
    setOption(QStringLiteral("outDir"), m_wish.outDir);
    if (isLikeOption(queryOf(m_wish.manifest)))
        options.SetOption(QStringLiteral("auth"), queryOf(m_wish.manifest));
    options.SetOption(QStringLiteral("stall"), m_wish.stallS);
}

/// What comes before the output in the stream's download as an argument list. The first two stand
/// where a program name would, and are not read.
QStringList HdsTransfer::arguments() const
{
    QStringList arguments{QStringLiteral("--url"), m_wish.pageUrl, QStringLiteral("--manifest"),
                          m_wish.manifest};
    const QString query = queryOf(m_wish.manifest);
    if (m_wish.manifest.indexOf(QLatin1Char('?')) > 0 && !isLikeOption(query))
        arguments += {QStringLiteral("--auth"), query};
    const ProxySetting &proxy = m_wish.proxy;
    if (!proxy.host.isEmpty())
        arguments += {QStringLiteral("--proxy"),
                      QStringLiteral("%1:%2:%3").arg(proxy.type).arg(proxy.host).arg(proxy.port)};
    return arguments;
}

/// Sets an option as its argument list would, whatever the text begins with.
void HdsTransfer::setOption(const QString &name, const QString &text)
{
    if (!isLikeOption(text)) {
        m_session->options.parseParams({QString(), QLatin1String("--") + name, text});
        return;
    }
    m_session->options.SetOption(name, text);
    HostEvents::send(event::StreamOptionSet{name, text});
}
