#include "AdobeData.h"

#include "AdobeUtils.h"
#include "HdsSession.h"

namespace {

constexpr int maxNameLength = 100; // characters; leaves room for the rest of a 255-byte file name
constexpr qint64 farAway = Q_INT64_C(1) << 40; // beyond every fragment number

bool isFit(QChar c)
{
    return c >= QLatin1Char(' ') && c != QLatin1Char('/') && c != QLatin1Char('\\')
        && c.unicode() != 0x7F;
}

/// The text as (part of) one path component.
QString asFileName(QString name)
{
    const QString original = name;
    for (QChar &c : name) {
        if (!isFit(c))
            c = QLatin1Char('_');
    }
    if (name.toUtf8().size() <= maxNameLength)
        return name;
    // Cut names must still differ from each other.
    return name.left(maxNameLength / 4) + QLatin1Char('_') + CAdobeUtils::GetMD5String(original);
}

int firstSegmentOf(const QVariant &entry)
{
    return entry.toMap().value(QStringLiteral("firstSegment")).toInt();
}

} // namespace

CAdobeData::CAdobeData(CAdobePreference &options)
    : m_options(options)
{
}

CAdobeData *CAdobeData::GetInstance()
{
    return &HdsSession::ofProcess()->data;
}

QString CAdobeData::option(const char *key) const
{
    return m_options.GetOption(QLatin1String(key)).toString();
}

QString CAdobeData::GetFragUrl(int segment, int fragment) const
{
    QString url = GetMedia().value(QStringLiteral("url")).toString();
    if (!url.startsWith(QLatin1String("http")))
        url = CAdobeUtils::JoinUrl(CAdobeUtils::GetBaseUrl(option("manifest")), url);
    url = CAdobeUtils::NormalizePath(url);
    const int manifestName = url.lastIndexOf(QLatin1String(".f4m"));
    if (manifestName > 0)
        url.truncate(manifestName);

    // Joined piece by piece: the address may hold text that looks like a marker.
    const QString address = url + QLatin1String("Seg") + QString::number(segment)
        + QLatin1String("-Frag") + QString::number(fragment);
    const QString auth = option("auth");
    return auth.isEmpty() ? address : address + QLatin1Char('?') + auth;
}

QString CAdobeData::GetBaseFileName(int segment) const
{
    QString name = GetMedia().value(QStringLiteral("url")).toString();
    if (name.endsWith(QLatin1Char('/')))
        name.chop(1);
    name = CAdobeUtils::RemoveExtension(name);
    const int slash = name.lastIndexOf(QLatin1Char('/'));
    if (slash > 0)
        name.remove(0, slash + 1);

    QString key = option("manifest");
    const int query = key.indexOf(QLatin1Char('?'));
    if (query > 0)
        key.truncate(query);

    const QString stem = CAdobeUtils::GetMD5String(key) + QLatin1Char('_') + asFileName(name);
    if (segment <= 0)
        return stem;
    return stem + QLatin1String("Seg") + QString::number(segment) + QLatin1String("-Frag");
}

QString CAdobeData::GetFragCacheFile(int segment, int fragment) const
{
    return option("outDir") + QLatin1String("/f4ftmp/") + GetBaseFileName(segment)
        + QString::number(fragment);
}

QVariant CAdobeData::GetSegmentFromFragment(int fragment) const
{
    const QVariantList table = m_segmentTable.toList();
    if (table.isEmpty())
        return {};
    const qint64 first = firstSegmentOf(table.constFirst());
    const qint64 last = firstSegmentOf(table.constLast());
    if (table.size() == 1)
        return static_cast<int>(first);

    // The list is indexed by the segment number itself; a number outside it keeps the entry before.
    // All rounds of such a stretch are alike, so it is taken in one step: its length comes from
    // the network.
    const qint64 count = m_fragmentsPerSegment.size();
    qint64 perSegment = m_fragmentsPerSegment.constFirst();
    qint64 fragStart = m_firstFragment;
    for (qint64 i = first; i <= last;) {
        const bool isListed = i >= 0 && i < count;
        if (isListed)
            perSegment = m_fragmentsPerSegment.at(static_cast<int>(i));
        const qint64 stretchEnd = i < 0 ? qMin<qint64>(last, -1) : last;
        const qint64 rounds = isListed ? 1 : stretchEnd - i + 1;
        if (perSegment > 0 && fragment >= fragStart && (fragment - fragStart) / perSegment < rounds)
            return static_cast<int>(i + (fragment - fragStart) / perSegment);
        fragStart =
            qBound(-farAway, fragStart + qBound(-farAway, perSegment * rounds, farAway), farAway);
        i += rounds;
    }
    return static_cast<int>(qMax(first, last));
}

int CAdobeData::GetFragCount() const
{
    return m_fragCount;
}

void CAdobeData::SetFragCount(int count)
{
    m_fragCount = count;
}

QVariant CAdobeData::GetSegmentTable() const
{
    return m_segmentTable;
}

void CAdobeData::SetSegmentTable(const QVariantList &table)
{
    m_segmentTable = table;
    m_fragmentsPerSegment.clear();
    m_fragmentsPerSegment.reserve(table.size());
    for (const QVariant &entry : table)
        m_fragmentsPerSegment += entry.toMap().value(QStringLiteral("fragmentsPerSegment")).toInt();
}

QVariant CAdobeData::GetFragmentTable() const
{
    return m_fragmentTable;
}

void CAdobeData::SetFragmentTable(const QVariantList &table)
{
    m_fragmentTable = table;
    const QVariant first = table.value(0).toMap().value(QStringLiteral("firstFragment"), 1);
    m_firstFragment = first.toLongLong();
}

QVariantMap CAdobeData::GetMedia() const
{
    return m_media.toMap();
}

void CAdobeData::SetMedia(const QVariantMap &media)
{
    m_media = media;
}

void CAdobeData::Reset()
{
    m_fragCount = 0;
    SetSegmentTable({});
    SetFragmentTable({});
    m_media.clear();
}
