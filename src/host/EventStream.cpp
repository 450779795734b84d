#include "EventStream.h"

#include "HostPipe.h"
#include "JsonRenderer.h"
#include "VideoPreference.h"

#include <QJsonDocument>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// Between two reports of progress: with the one that completes a transfer, still no more than ten
// a second.
constexpr auto progressInterval = std::chrono::milliseconds(125);
constexpr double newShare = 0.3; // of the latest interval in the rate that is told

std::atomic_int output{-1};
bool hasResult = false; // which is the last event; for write() alone
Clock::time_point openedAt; // set before other threads begin

/// Chooses which progress is told, and measures how fast it is.
class ProgressMeter final
{
public:
    /// A transfer begins; what comes next belongs to it.
    void begin() { *this = ProgressMeter(); }

    /// Whether the progress is to be told, in units a second if that is known yet.
    [[nodiscard]] bool takes(const event::Progress &progress, std::optional<double> &rate)
    {
        const Clock::time_point now = Clock::now();
        const bool isWhole = progress.total > 0 && progress.done >= progress.total;
        const bool isNew = !m_last || m_last->done != progress.done
            || m_last->total != progress.total || m_last->unit != progress.unit;
        if (!isNew || (m_last && !isWhole && now - m_lastAt < progressInterval))
            return false;
        if (m_last && m_last->unit == progress.unit)
            measure(progress.done - m_last->done, now - m_lastAt);
        else
            m_rate.reset();
        m_last = progress;
        m_lastAt = now;
        rate = m_rate;
        return true;
    }

private:
    void measure(qint64 units, Clock::duration time)
    {
        const double seconds = std::max(Seconds(time).count(), 0.001);
        const double latest = static_cast<double>(std::max<qint64>(units, 0)) / seconds;
        m_rate = m_rate ? *m_rate * (1 - newShare) + latest * newShare : latest;
    }

    std::optional<event::Progress> m_last;
    Clock::time_point m_lastAt;
    std::optional<double> m_rate;
};

ProgressMeter &meter()
{
    static auto *const progress = new ProgressMeter; // for static destructors' last words, too
    return *progress;
}

bool isWanted(int argc, char *argv[])
{
    return std::any_of(argv, argv + argc, [](const char *argument) {
        return CVideoPreference::instance()->isSameOptionKey(QString::fromLocal8Bit(argument),
                                                             QStringLiteral("events"));
    });
}

/// Keeps standard output for the events and gives everybody else the null device.
int takeStandardOutput()
{
    const int taken = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null < 0 || ::dup2(null, STDOUT_FILENO) < 0)
        ::close(STDOUT_FILENO);
    if (null >= 0 && null != STDOUT_FILENO)
        ::close(null);
    return taken;
}

QJsonObject envelopeOf(const HostEvent &event)
{
    QJsonObject object = JsonRenderer::objectOf(event);
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - openedAt);
    object.insert(QStringLiteral("version"), JsonRenderer::version);
    object.insert(QStringLiteral("elapsedMs"), static_cast<qint64>(elapsed.count()));
    return object;
}

} // namespace

void EventStream::openIfWanted(int argc, char *argv[])
{
    if (output >= 0 || !isWanted(argc, argv))
        return;
    openedAt = Clock::now();
    output = takeStandardOutput();
}

bool EventStream::isOpen()
{
    return output >= 0;
}

void EventStream::write(const HostEvent &event)
{
    if (!isOpen() || hasResult)
        return;
    hasResult = std::holds_alternative<event::RunEnded>(event);
    std::optional<double> rate;
    if (std::holds_alternative<event::DownloadBegun>(event))
        meter().begin();
    const auto *const progress = std::get_if<event::Progress>(&event);
    if (progress && !meter().takes(*progress, rate))
        return;
    QJsonObject object = envelopeOf(event);
    if (rate)
        object.insert(QStringLiteral("rate"), *rate);
    HostPipe::write(output, QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
}
