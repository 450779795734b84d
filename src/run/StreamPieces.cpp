#include "StreamPieces.h"

#include "TrackSource.h"

#include <QUrl>

#include <algorithm>
#include <iterator>

namespace {

constexpr int maxShapes = 20000; // in each set
constexpr qint64 maxSegments = 20000; // of a track that are looked at

const QLatin1String segmentTypes[] = {
    QLatin1String("video/mp2t"), QLatin1String("video/iso.segment"),
    QLatin1String("audio/iso.segment"), QLatin1String("video/f4f")};
const QLatin1String segmentNames[] = {QLatin1String(".ts"), QLatin1String(".m4s"),
                                      QLatin1String(".cmfv"), QLatin1String(".cmfa")};

/// Host and path, with one sign for every number: what segments of one stream have in common.
QString shapeOf(const QString &address)
{
    const QUrl url(address);
    const QString path = url.path(QUrl::FullyEncoded);
    QString shape = url.authority() + QLatin1Char('/');
    bool isInNumber = false;
    for (const QChar c : path) {
        const bool isDigit = c >= QLatin1Char('0') && c <= QLatin1Char('9');
        if (!isDigit)
            shape += c;
        else if (!isInNumber)
            shape += QLatin1Char('#');
        isInNumber = isDigit;
    }
    return shape;
}

QString folderOf(const QString &shape)
{
    return shape.left(shape.lastIndexOf(QLatin1Char('/')) + 1);
}

void insert(QSet<QString> &set, const QString &text)
{
    if (set.size() < maxShapes)
        set.insert(text);
}

QString plain(const QString &address)
{
    return QUrl(address).toString(QUrl::FullyEncoded | QUrl::RemoveFragment);
}

} // namespace

void StreamPieces::add(const Presentation &presentation, const QSet<QString> &own)
{
    const QVector<Rendition> all = presentation.renditions();
    for (const Rendition &one : all) {
        if (!one.id.startsWith(QLatin1String("http")))
            continue;
        if (!own.contains(plain(one.id)))
            insert(m_playlists, plain(one.id));
        insert(m_folders, folderOf(shapeOf(one.id)));
    }
    const QVector<Rendition> chosen = presentation.chosen();
    const QVector<TrackSource *> tracks = presentation.tracks();
    for (int i = 0; i < tracks.size() && i < chosen.size(); ++i)
        addSegments(*tracks.at(i), chosen.at(i), all);
}

/// @param others whose names may stand in the place of this one's in an address
void StreamPieces::addSegments(const TrackSource &track, const Rendition &rendition,
                               const QVector<Rendition> &others)
{
    const qint64 last = qMin(track.last(), track.first() + maxSegments);
    for (qint64 n = track.first(); n <= last; ++n) {
        const QString address = track.segment(n).address;
        const QString shape = shapeOf(address);
        if (address.isEmpty() || m_segments.contains(shape))
            continue;
        insert(m_segments, shape);
        const QString folder = folderOf(shapeOf(rendition.id));
        if (rendition.id.startsWith(QLatin1String("http"))) {
            if (shape.startsWith(folder))
                insert(m_names, shape.mid(folder.size()));
            continue;
        }
        for (const Rendition &other : others) {
            if (!rendition.id.isEmpty() && !other.id.isEmpty() && m_segments.size() < maxShapes)
                insert(m_segments, shapeOf(QString(address).replace(rendition.id, other.id)));
        }
    }
}

bool StreamPieces::isPlaylist(const QString &address) const
{
    return m_playlists.contains(plain(address));
}

bool StreamPieces::isSegment(const QString &address) const
{
    const QString shape = shapeOf(address);
    if (m_segments.contains(shape))
        return true;
    for (int slash = shape.indexOf(QLatin1Char('/')); slash >= 0 && !m_names.isEmpty();
         slash = shape.indexOf(QLatin1Char('/'), slash + 1)) {
        if (m_folders.contains(shape.left(slash + 1)) && m_names.contains(shape.mid(slash + 1)))
            return true;
    }
    return false;
}

bool StreamPieces::isSegmentKind(const QString &address, const QString &contentType)
{
    const QString type = contentType.section(QLatin1Char(';'), 0, 0).trimmed();
    const QString path = QUrl(address).path();
    return std::any_of(std::begin(segmentTypes), std::end(segmentTypes),
                       [&type](QLatin1String known) {
                           return type.compare(known, Qt::CaseInsensitive) == 0;
                       })
        || std::any_of(
               std::begin(segmentNames), std::end(segmentNames),
               [&path](QLatin1String known) { return path.endsWith(known, Qt::CaseInsensitive); });
}
