#include "VideoParts.h"

#include "HostEvents.h"

#include <QFile>

namespace {

constexpr qint64 copyChunkBytes = 1 << 20;

bool isSuccess(int outcome)
{
    return outcome == static_cast<int>(Transfer::Outcome::Succeeded);
}

bool appendFile(QFile &output, const QString &path)
{
    QFile input(path);
    if (!input.open(QIODevice::ReadOnly))
        return false;
    while (!input.atEnd()) {
        const QByteArray chunk = input.read(copyChunkBytes);
        if (chunk.isEmpty() || output.write(chunk) != chunk.size())
            return false;
    }
    return true;
}

} // namespace

VideoParts::VideoParts(int expected)
    : m_expected(expected)
{
}

void VideoParts::add(int outcome)
{
    ++(isSuccess(outcome) ? m_succeeded : m_failed);
    m_lastOutcome = outcome;
}

bool VideoParts::haveAllEnded() const
{
    return m_succeeded + m_failed >= m_expected;
}

bool VideoParts::report(const QString &videoPath) const
{
    if (m_expected == 1) {
        reportEnd(event::What::Video, m_lastOutcome);
        return isSuccess(m_lastOutcome);
    }
    const bool haveAllCome = m_failed == 0 && m_succeeded > 1;
    HostEvents::send(event::PartsEnded{haveAllCome});
    const bool isThere = haveAllCome && join(videoPath, m_expected);
    HostEvents::send(event::PartsFinished{});
    return isThere;
}

bool VideoParts::join(const QString &videoPath, int count)
{
    QFile output(videoPath);
    if (!output.open(QIODevice::WriteOnly))
        return false;
    for (int i = 0; i < count; ++i) {
        if (!appendFile(output, videoPath + QStringLiteral("_%1").arg(i)))
            qWarning("cannot append part %d to %s: %s", i, qUtf8Printable(videoPath),
                     qUtf8Printable(output.errorString()));
    }
    return true;
}

void VideoParts::reportEnd(event::What what, int outcome)
{
    switch (static_cast<Transfer::Outcome>(outcome)) {
    case Transfer::Outcome::Succeeded:
        return HostEvents::send(event::DownloadEnded{what, event::Outcome::Succeeded});
    case Transfer::Outcome::Failed:
        return HostEvents::send(event::DownloadEnded{what, event::Outcome::Failed});
    case Transfer::Outcome::Canceled:
        return HostEvents::send(event::DownloadEnded{what, event::Outcome::Canceled});
    }
}
