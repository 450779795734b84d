// A chunk of what rtmpdump prints.
#include "FuzzSupport.h"
#include "RtmpdumpOutput.h"

#include <QRegExp>

#include <cmath>
#include <limits>

namespace {

constexpr int longestForPlain = 500;

/// What stands between the first `begin` and the first `end` after it, by the plain expression.
QString plainBetween(const QString &text, const QString &begin, const QString &end)
{
    QRegExp expression(QRegExp::escape(begin) + QLatin1String("(.*)") + QRegExp::escape(end));
    expression.setMinimal(true);
    const int at = text.indexOf(begin); // the expression would go on to the next one
    return at >= 0 && expression.indexIn(text, at) == at ? expression.cap(1) : QString();
}

void checkStatus(const RtmpdumpOutput::Status &status)
{
    constexpr double limit = static_cast<double>(std::numeric_limits<qint64>::max());
    const qint64 received = status.received();
    const qint64 total = status.total();
    if (std::abs(status.receivedBytes) < limit)
        FUZZ_CHECK(received == static_cast<qint64>(status.receivedBytes));
    if (!(status.fraction > 0.03))
        FUZZ_CHECK(total == 0);
    else if (status.fraction <= 1 && status.receivedBytes >= 0)
        FUZZ_CHECK(total >= received);
    if (std::isnan(status.receivedBytes))
        FUZZ_CHECK(received == 0 && total == 0);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    const QByteArray chunk = fuzz::bytes(data, size);
    const std::optional<RtmpdumpOutput::Status> status = RtmpdumpOutput::status(chunk);
    if (status)
        checkStatus(*status);
    const QString text = QLatin1String(chunk.constData(), chunk.size());
    FUZZ_CHECK(RtmpdumpOutput::tellsWriteFailure(chunk)
               == text.contains(QStringLiteral("Failed writing")));
    if (text.size() > longestForPlain)
        return 0;

    const QString percentage = plainBetween(text, QStringLiteral("("), QStringLiteral("%"));
    FUZZ_CHECK(status.has_value() == !percentage.isEmpty());
    if (!status)
        return 0;
    FUZZ_CHECK(status->fraction == percentage.toLatin1().toDouble() / 100
               || std::isnan(status->fraction));
    const QString received = plainBetween(text, QStringLiteral("\r"), QStringLiteral(" kB"));
    FUZZ_CHECK(status->receivedBytes == received.toLatin1().toDouble() * 1024
               || std::isnan(status->receivedBytes));
    return 0;
}
