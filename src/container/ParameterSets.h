#ifndef PARAMETERSETS_H
#define PARAMETERSETS_H

#include <QByteArray>

#include <optional>

/// What a picture's decoder must know before it begins, for H.264 and HEVC: kept in the description
/// of a stream (ISO/IEC 14496-15), or among the picture's own units.
class ParameterSets final
{
public:
    ParameterSets() = delete;

    enum class Codec { H264, Hevc };

    /// The parameter sets of a configuration record as units to be put before those of a packet,
    /// each behind its length; none when it is no such record, or one whose lengths are not of so
    /// many bytes.
    [[nodiscard]] static std::optional<QByteArray> units(const QByteArray &record, Codec codec,
                                                         int lengthBytes);

    /// Of how many bytes the lengths are in the packets that a record describes; 0 when it is none.
    [[nodiscard]] static int lengthBytes(const QByteArray &record, Codec codec);
};

#endif
