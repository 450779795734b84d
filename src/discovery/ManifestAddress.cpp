#include "ManifestAddress.h"

#include <QUrl>
#include <QXmlStreamReader>

namespace {

using Kind = ManifestAddress::Kind;

const struct
{
    const char *name;
    Kind kind;
} types[] = {
    {"application/vnd.apple.mpegurl", Kind::Hls},
    {"application/x-mpegurl", Kind::Hls},
    {"audio/mpegurl", Kind::Hls},
    {"audio/x-mpegurl", Kind::Hls},
    {"application/dash+xml", Kind::Dash},
    {"application/f4m+xml", Kind::Hds},
    {"video/f4m", Kind::Hds},
};

/// Whether one of the names in a path ends so, as a server's own path may follow it.
bool namesFile(const QString &path, const QLatin1String &extension)
{
    for (int from = 0; (from = path.indexOf(extension, from, Qt::CaseInsensitive)) >= 0;) {
        from += extension.size();
        if (from == path.size() || path.at(from) == QLatin1Char('/')
            || path.at(from) == QLatin1Char(';'))
            return true;
    }
    return false;
}

bool isPlaylist(const QByteArray &beginning)
{
    const char *const mark = "#EXTM3U";
    int from = beginning.startsWith("\xef\xbb\xbf") ? 3 : 0;
    while (from < beginning.size() && QByteArray(" \t\r\n").contains(beginning.at(from)))
        ++from;
    return beginning.mid(from, static_cast<int>(qstrlen(mark))) == mark;
}

/// What the first element is that of, whatever its prefix. Nothing is expanded: the reader stops
/// before any content.
Kind kindOfElement(const QByteArray &beginning)
{
    QXmlStreamReader reader(beginning);
    if (!reader.readNextStartElement())
        return Kind::None;
    if (reader.name() == QLatin1String("MPD"))
        return Kind::Dash;
    const bool isHds = reader.name() == QLatin1String("manifest")
        && (reader.namespaceUri().isEmpty()
            || reader.namespaceUri().startsWith(QLatin1String(ManifestAddress::hdsNamespace)));
    return isHds ? Kind::Hds : Kind::None;
}

} // namespace

Kind ManifestAddress::kindOf(const QString &address, const QString &contentType)
{
    const Kind kind = kindOfType(contentType);
    return kind != Kind::None ? kind : kindOfAddress(address);
}

Kind ManifestAddress::kindOfType(const QString &contentType)
{
    const QString type = contentType.section(QLatin1Char(';'), 0, 0).trimmed();
    for (const auto &known : types) {
        if (type.compare(QLatin1String(known.name), Qt::CaseInsensitive) == 0)
            return known.kind;
    }
    return Kind::None;
}

Kind ManifestAddress::kindOfAddress(const QString &address)
{
    const QString path = QUrl(address).path();
    if (namesFile(path, QLatin1String(".m3u8")))
        return Kind::Hls;
    if (namesFile(path, QLatin1String(".mpd")))
        return Kind::Dash;
    return namesFile(path, QLatin1String(".f4m")) ? Kind::Hds : Kind::None;
}

Kind ManifestAddress::kindOfBytes(const QByteArray &beginning)
{
    const QByteArray first = beginning.left(sniffBytes);
    return isPlaylist(first) ? Kind::Hls : kindOfElement(first);
}
