#include "RtmpdumpOutput.h"

#include "utils.h"

#include <limits>

namespace {

constexpr double bytesPerKilobyte = 1024;
/// Below this share the total that it gives is too far off to be told.
constexpr double leastUsefulFraction = 0.03;

/// The whole part, held within the range of the type; 0 for what is no number.
qint64 truncated(double value)
{
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (value >= limit)
        return std::numeric_limits<qint64>::max();
    if (value <= -limit)
        return std::numeric_limits<qint64>::min();
    return qIsNaN(value) ? 0 : static_cast<qint64>(value);
}

} // namespace

qint64 RtmpdumpOutput::Status::received() const
{
    return truncated(receivedBytes);
}

qint64 RtmpdumpOutput::Status::total() const
{
    return fraction > leastUsefulFraction ? truncated(receivedBytes / fraction) : 0;
}

std::optional<RtmpdumpOutput::Status> RtmpdumpOutput::status(const QByteArray &chunk)
{
    const QByteArray percentage = Utils::MidString(chunk, "(", "%");
    if (percentage.isEmpty())
        return std::nullopt;
    return Status{Utils::MidString(chunk, "\r", " kB").toDouble() * bytesPerKilobyte,
                  percentage.toDouble() / 100};
}

bool RtmpdumpOutput::tellsWriteFailure(const QByteArray &chunk)
{
    return chunk.contains("Failed writing");
}
