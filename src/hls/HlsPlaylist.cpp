#include "HlsPlaylist.h"

#include "HlsParser.h"
#include "WebAddress.h"

#include <algorithm>

namespace {

/// What names of codecs of sound begin with (RFC 6381).
const char *const audioCodecs[] = {"mp4a", "ac-3", "ec-3", "ac-4", "opus",
                                   "flac", "mp3",  "alac", "dts",  "vorbis"};

bool isAudioCodec(const QString &codec)
{
    return std::any_of(std::begin(audioCodecs), std::end(audioCodecs), [&codec](const char *name) {
        return codec.startsWith(QLatin1String(name), Qt::CaseInsensitive);
    });
}

} // namespace

bool HlsKey::operator==(const HlsKey &other) const
{
    return uri == other.uri && iv == other.iv && protection == other.protection;
}

bool HlsVariant::isAudioOnly() const
{
    if (width > 0 || height > 0 || codecs.isEmpty())
        return false;
    const QStringList names = codecs.split(QLatin1Char(','));
    return std::all_of(names.cbegin(), names.cend(),
                       [](const QString &name) { return isAudioCodec(name.trimmed()); });
}

HlsPlaylist HlsPlaylist::parse(const QByteArray &text, const QUrl &address,
                               const HlsVariables &imports)
{
    return HlsParser(address, imports).parse(text);
}

QUrl HlsPlaylist::resolve(const QString &uri) const
{
    return resolve(address, uri);
}

QUrl HlsPlaylist::resolve(const QUrl &address, const QString &uri)
{
    QUrl resolved = address.resolved(QUrl(uri));
    resolved.setFragment(QString());
    return WebAddress::isWeb(resolved) ? resolved : QUrl();
}

qint64 HlsPlaylist::durationUs() const
{
    qint64 sum = 0;
    for (const HlsSegment &segment : segments)
        sum += segment.durationUs;
    return sum;
}

QString HlsPlaylist::protection() const
{
    const HlsKey *last = nullptr; // which segments share
    for (const HlsSegment &segment : segments) {
        const HlsKey *const mapKey = segment.map ? segment.map->key.get() : nullptr;
        for (const HlsKey *const key : {segment.key.get(), mapKey}) {
            if (!key || key == last)
                continue;
            last = key;
            if (!key->protection.isEmpty())
                return key->protection;
            if (key->uri.isEmpty() || resolve(key->uri).isEmpty())
                return QStringLiteral("a key that is not on the web");
        }
    }
    return {};
}
