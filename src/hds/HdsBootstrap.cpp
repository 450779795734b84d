#include "HdsBootstrap.h"

#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr quint64 boxHeaderBytes = 8;
constexpr quint64 segmentEntryBytes = 8;
constexpr quint64 fragmentEntryBytes = 16;
constexpr qint64 usPerSecond = 1000 * 1000;
constexpr qint64 maxSeconds = Q_INT64_C(100) * 1000 * 1000 * 1000;
constexpr qint64 maxFragmentUs =
    7 * 24 * 3600 * usPerSecond; // so that all together can be reckoned
constexpr quint32 usualTimescale = 1000;
constexpr qint64 endless = Q_INT64_C(1) << 40; // beyond every number of a fragment
constexpr quint8 liveBit = 0x20;

/// Big-endian fields of a part of a buffer. What lies beyond its end reads as 0 and is remembered.
class Fields final
{
public:
    explicit Fields(const QByteArray &bytes)
        : m_at(bytes.constData())
        , m_left(static_cast<quint64>(bytes.size()))
    {
    }

    [[nodiscard]] quint64 left() const { return m_left; }
    [[nodiscard]] bool isCut() const { return m_isCut; }

    template <typename Number> Number take()
    {
        if (!has(sizeof(Number)))
            return 0;
        const auto number = qFromBigEndian<Number>(m_at);
        advance(sizeof(Number));
        return number;
    }

    void skip(quint64 bytes)
    {
        if (has(bytes))
            advance(bytes);
    }

    /// A text that ends with a zero byte. Returns whether it has any characters.
    bool takeText()
    {
        const char *const end = m_at + m_left;
        const char *const zero = std::find(m_at, end, '\0');
        const bool hasAny = zero != m_at;
        skip(static_cast<quint64>(zero - m_at) + 1);
        return hasAny;
    }

    /// Texts, as many as a byte says. Returns how many there should be.
    int takeTexts()
    {
        const int count = take<quint8>();
        for (int i = 0; i < count && !m_isCut; ++i)
            takeText();
        return count;
    }

    /// The payload of the next box, whose type is told; what is left when it runs past the end.
    Fields takeBox(QByteArray &type)
    {
        quint64 size = take<quint32>();
        quint64 header = boxHeaderBytes;
        type = QByteArray(m_at, static_cast<int>(qMin<quint64>(m_left, 4)));
        skip(4);
        if (size == 1) {
            size = take<quint64>();
            header += 8;
        }
        m_isCut = m_isCut || (size > 0 && size < header);
        const quint64 payload = size == 0 ? m_left : qMin(size - header, m_left);
        Fields box(*this);
        box.m_left = m_isCut ? 0 : payload;
        advance(box.m_left);
        return box;
    }

private:
    bool has(quint64 bytes)
    {
        m_isCut = m_isCut || bytes > m_left;
        return !m_isCut;
    }

    void advance(quint64 bytes)
    {
        m_at += bytes;
        m_left -= bytes;
    }

    const char *m_at;
    quint64 m_left;
    bool m_isCut = false;
};

struct SegmentRun
{
    qint64 firstSegment = 1;
    qint64 perSegment = endless;
};

struct FragmentRun
{
    qint64 first = 1;
    qint64 end = 0; ///< the number behind the last; 0 while unknown
    qint64 startUs = 0;
    qint64 durationUs = 0;
};

qint64 toUs(quint64 units, quint32 timescale)
{
    const quint64 seconds = units / timescale;
    if (seconds > static_cast<quint64>(maxSeconds))
        return 0; // no time at all
    return static_cast<qint64>(seconds) * usPerSecond
        + static_cast<qint64>(units % timescale * usPerSecond / timescale);
}

/// Reads the box and lays its two tables over one another.
class Reader final
{
public:
    explicit Reader(qint64 durationUs)
        : m_endUs(durationUs)
    {
    }

    std::optional<HdsBootstrap> read(Fields box, QString &reason)
    {
        readHead(box);
        readTables(box, "asrt", [this](Fields table) { return readSegmentRuns(table); });
        readTables(box, "afrt", [this](Fields table) { return readFragmentRuns(table); });
        if (m_fragmentRuns.isEmpty()) {
            reason = QStringLiteral("its bootstrap names no fragments");
            return std::nullopt;
        }
        if (m_segmentRuns.isEmpty())
            m_segmentRuns += SegmentRun();
        endLastRun();
        if (!layOut()) {
            reason = QStringLiteral("its bootstrap has more fragments than can be");
            return std::nullopt;
        }
        return m_bootstrap;
    }

private:
    void readHead(Fields &box)
    {
        box.skip(1 + 3 + 4); // version, flags, BootstrapinfoVersion
        m_bootstrap.isLive = box.take<quint8>() & liveBit;
        const quint32 timescale = timescaleOf(box);
        const qint64 mediaUs = toUs(box.take<quint64>(), timescale);
        if (mediaUs > 0 || m_bootstrap.isLive)
            m_endUs = mediaUs;
        box.skip(8); // SmpteTimeCodeOffset
        box.takeText(); // MovieIdentifier
        box.takeTexts(); // servers
        box.takeTexts(); // qualities
        m_bootstrap.isProtected = box.takeText();
        box.takeText(); // metadata
    }

    static quint32 timescaleOf(Fields &box)
    {
        const auto timescale = box.take<quint32>();
        return timescale > 0 ? timescale : usualTimescale;
    }

    /// Reads tables of a type, up to the first that is of use: others are for other qualities.
    template <typename ReadTable>
    static void readTables(Fields &box, const char *wanted, const ReadTable &readTable)
    {
        bool isDone = false;
        for (int left = box.take<quint8>(); left > 0 && box.left() > 0 && !box.isCut(); --left) {
            QByteArray type;
            const Fields table = box.takeBox(type);
            isDone = isDone || (type == wanted && readTable(table));
        }
    }

    bool readSegmentRuns(Fields table)
    {
        table.skip(1 + 3); // version, flags
        table.takeTexts(); // qualities
        const auto count = table.take<quint32>();
        for (quint32 i = 0; i < count && table.left() >= segmentEntryBytes; ++i) {
            SegmentRun run;
            run.firstSegment = table.take<quint32>();
            const qint64 perSegment = table.take<quint32>();
            if (perSegment > 0 && perSegment <= HdsBootstrap::maxFragments)
                run.perSegment = perSegment;
            const bool isFirst = m_segmentRuns.isEmpty();
            if (perSegment > 0
                && (isFirst || run.firstSegment > m_segmentRuns.constLast().firstSegment))
                m_segmentRuns += run;
        }
        return !m_segmentRuns.isEmpty();
    }

    bool readFragmentRuns(Fields table)
    {
        table.skip(1 + 3); // version, flags
        const quint32 timescale = timescaleOf(table);
        table.takeTexts(); // qualities
        const auto count = table.take<quint32>();
        for (quint32 i = 0; i < count && table.left() >= fragmentEntryBytes; ++i) {
            FragmentRun run;
            run.first = table.take<quint32>();
            run.startUs = toUs(table.take<quint64>(), timescale);
            const auto duration = table.take<quint32>();
            run.durationUs = toUs(duration, timescale);
            if (run.durationUs > maxFragmentUs)
                run.durationUs = 0;
            addRun(run, duration == 0 ? table.take<quint8>() : -1);
        }
        if (m_isOver)
            m_bootstrap.isLive = false;
        return !m_fragmentRuns.isEmpty();
    }

    /// @param discontinuity what an entry stands for that is no run; 0 for the end of the stream
    void addRun(const FragmentRun &run, int discontinuity)
    {
        FragmentRun *const last = m_fragmentRuns.isEmpty() ? nullptr : &m_fragmentRuns.last();
        const bool isLater = !last || (run.first > last->first && run.first >= last->end);
        if (last && isLater && last->end == 0)
            last->end = run.first;
        m_isOver = discontinuity == 0;
        if (discontinuity < 0 && isLater)
            m_fragmentRuns += run;
    }

    /// Finds out where the last run ends, which no further one tells.
    void endLastRun()
    {
        FragmentRun &last = m_fragmentRuns.last();
        const qint64 byTime = last.end > 0 ? last.end : last.first + countByTime(last);
        const bool isTimed = last.end > 0 || (last.durationUs > 0 && m_endUs > last.startUs);
        const qint64 bySegments = endOfSegments(isTimed ? byTime : 0);
        const bool isByTime =
            (m_bootstrap.isLive && m_endUs > last.startUs) || bySegments >= endless;
        m_bootstrap.isLastDoubtful = isByTime && last.end == 0 && byTime > last.first + 1;
        last.end = qMax(last.first + 1, isByTime ? byTime : qMax(last.end, bySegments));
    }

    /// How many fragments of a run there are by the clock. What is told of a live stream is where
    /// its latest fragment begins, or ends.
    [[nodiscard]] qint64 countByTime(const FragmentRun &run) const
    {
        if (run.durationUs <= 0 || m_endUs <= run.startUs)
            return 1;
        const double count =
            static_cast<double>(m_endUs - run.startUs) / static_cast<double>(run.durationUs);
        const double whole = m_bootstrap.isLive ? std::ceil(count) : std::round(count);
        return static_cast<qint64>(qBound(1.0, whole, static_cast<double>(endless)));
    }

    /// The number behind the last fragment by the segments: those of the last run are one, or as
    /// many as it takes to come to what the clock tells, if it does. Endless where the table does
    /// not say.
    [[nodiscard]] qint64 endOfSegments(qint64 byTime) const
    {
        qint64 begin = m_fragmentRuns.constFirst().first;
        for (int i = 0; i + 1 < m_segmentRuns.size(); ++i)
            begin += fragmentsOf(i);
        const qint64 perSegment = m_segmentRuns.constLast().perSegment;
        if (perSegment >= endless || begin >= endless)
            return endless;
        const double segments =
            static_cast<double>(byTime - begin) / static_cast<double>(perSegment);
        const auto count = static_cast<qint64>(qBound(1.0, std::round(segments), 1e9));
        return qMin(begin + perSegment * count, endless);
    }

    /// How many fragments a run of segments holds.
    [[nodiscard]] qint64 fragmentsOf(int run) const
    {
        if (run + 1 == m_segmentRuns.size())
            return endless;
        const qint64 segments =
            m_segmentRuns.at(run + 1).firstSegment - m_segmentRuns.at(run).firstSegment;
        const qint64 perSegment = m_segmentRuns.at(run).perSegment;
        return perSegment >= endless / segments ? endless : perSegment * segments;
    }

    /// Returns false when there are more fragments than can be.
    bool layOut()
    {
        int run = 0; // of segments, in which the next fragment lies
        qint64 runBegin = m_fragmentRuns.constFirst().first;
        qint64 count = 0;
        for (const FragmentRun &fragments : qAsConst(m_fragmentRuns)) {
            count += fragments.end - fragments.first;
            if (count > HdsBootstrap::maxFragments)
                return false;
            for (qint64 next = fragments.first; next < fragments.end;) {
                while (next - runBegin >= fragmentsOf(run)) {
                    runBegin += fragmentsOf(run);
                    ++run;
                }
                const qint64 room = runBegin + fragmentsOf(run) - next;
                const qint64 taken = qMin(fragments.end - next, room);
                addSpan(fragments, next, taken, m_segmentRuns.at(run), next - runBegin);
                next += taken;
            }
        }
        return true;
    }

    void addSpan(const FragmentRun &fragments, qint64 first, qint64 count,
                 const SegmentRun &segments, qint64 place)
    {
        HdsBootstrap::Span span;
        span.fragment = first;
        span.count = count;
        span.startUs = fragments.startUs + (first - fragments.first) * fragments.durationUs;
        span.durationUs = fragments.durationUs;
        span.perSegment = segments.perSegment;
        span.segment = segments.firstSegment + place / segments.perSegment;
        span.place = place % segments.perSegment;
        m_bootstrap.spans += span;
    }

    HdsBootstrap m_bootstrap;
    qint64 m_endUs; // of the stream as far as it is there; 0 while unknown
    QVector<SegmentRun> m_segmentRuns;
    QVector<FragmentRun> m_fragmentRuns;
    bool m_isOver = false; // the last entry is the end of the stream
};

/// The payload of the first box of that type on the outermost level.
std::optional<Fields> findBox(const QByteArray &bytes, const char *wanted)
{
    Fields fields(bytes);
    while (fields.left() > 0 && !fields.isCut()) {
        QByteArray type;
        const Fields box = fields.takeBox(type);
        if (type == wanted && !fields.isCut())
            return box;
    }
    return std::nullopt;
}

} // namespace

qint64 HdsBootstrap::endUs() const
{
    const Span &last = spans.constLast();
    return last.startUs + last.count * last.durationUs;
}

std::optional<HdsBootstrap> HdsBootstrap::parse(const QByteArray &answer, qint64 durationUs,
                                                QString &reason)
{
    const char *const type = "abst";
    if (const auto box = findBox(answer, type))
        return Reader(durationUs).read(*box, reason);
    const QByteArray decoded = QByteArray::fromBase64(answer);
    if (const auto box = findBox(decoded, type))
        return Reader(durationUs).read(*box, reason);
    reason = QStringLiteral("its bootstrap is none");
    return std::nullopt;
}
