#ifndef HLSPARSER_H
#define HLSPARSER_H

#include "HlsPlaylist.h"

#include <memory>
#include <optional>
#include <vector>

/// Reads one playlist, line by line. Made for one text.
class HlsParser final
{
public:
    /// @param address where the text came from    @param imports what IMPORT may name
    HlsParser(const QUrl &address, const HlsVariables &imports);

    [[nodiscard]] HlsPlaylist parse(const QByteArray &text);

private:
    using Kind = HlsPlaylist::Kind;

    /// Where a range lies; without a first byte it goes on where the last one ended.
    struct Range
    {
        qint64 count = 0;
        std::optional<qint64> first;
    };

    /// A key that holds for the segments to come, by the format that it is named in.
    struct HeldKey
    {
        QString format;
        std::shared_ptr<const HlsKey> key;
        bool isWhole = false; ///< of whole segments, not of samples within
    };

    struct Tag;
    static const Tag tags[];

    void readLines(const QByteArray &text, int from);
    void readLine(const QByteArray &line);
    void readTag(const QByteArray &line);
    void readUri(const QByteArray &line);

    void readStreamInf(const QByteArray &value);
    void readMedia(const QByteArray &value);
    void readIFrames(const QByteArray &value);
    void readDefine(const QByteArray &value);
    void readTargetDuration(const QByteArray &value);
    void readMediaSequence(const QByteArray &value);
    void readDiscontinuitySequence(const QByteArray &value);
    void readPlaylistType(const QByteArray &value);
    void readEndList(const QByteArray &value);
    void readIFramesOnly(const QByteArray &value);
    void readInf(const QByteArray &value);
    void readByteRange(const QByteArray &value);
    void readKey(const QByteArray &value);
    void readMap(const QByteArray &value);
    void readDiscontinuity(const QByteArray &value);
    void readGap(const QByteArray &value);
    void readDate(const QByteArray &value);
    void readSkip(const QByteArray &value);

    void addVariant(const QString &uri);
    void addSegment(const QString &uri);
    [[nodiscard]] bool placeRange(const QString &uri);
    void holdKey(const HeldKey &key);
    [[nodiscard]] std::shared_ptr<const HlsKey> keyInForce() const;
    [[nodiscard]] static std::optional<Range> rangeOf(const QByteArray &value);
    void be(Kind kind);
    void fail(const QString &why);
    [[nodiscard]] bool hasFailed() const { return !m_playlist.error.isEmpty(); }

    const HlsVariables m_imports;
    HlsPlaylist m_playlist;
    std::optional<HlsVariant> m_variant; ///< whose address comes next
    HlsSegment m_segment; ///< whose address comes next
    std::optional<Range> m_range; ///< of that segment
    std::vector<HeldKey> m_keys;
    std::shared_ptr<const HlsKey> m_key; ///< in force
    std::shared_ptr<const HlsMap> m_map; ///< in force
    std::shared_ptr<HlsMap> m_newMap; ///< from the next segment on
    QString m_rangeUri; ///< of the segment before, if that was a range
    qint64 m_rangeEnd = 0; ///< one past its last byte
    qint64 m_discontinuity = 0;
};

#endif
