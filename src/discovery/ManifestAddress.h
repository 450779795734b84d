#ifndef MANIFESTADDRESS_H
#define MANIFESTADDRESS_H

#include <QByteArray>
#include <QString>

/// Tells the playlists of HTTP Live Streaming (RFC 8216), the manifests of DASH (ISO/IEC 23009-1)
/// and those of HTTP Dynamic Streaming (HDS) from everything else. Pure functions, safe on any
/// thread.
class ManifestAddress final
{
public:
    enum class Kind { None, Hls, Dash, Hds };

    ManifestAddress() = delete;

    /// What an answer may be, by its content type or, where that tells neither, by the path of its
    /// address. The first bytes have the last word.
    [[nodiscard]] static Kind kindOf(const QString &address, const QString &contentType);

    /// The same by the content type alone, in any letter case and with any parameters.
    [[nodiscard]] static Kind kindOfType(const QString &contentType);

    /// The same by the address alone: a name in its path that ends with .m3u8, .mpd or .f4m, in
    /// any letter case.
    [[nodiscard]] static Kind kindOfAddress(const QString &address);

    /// What a body is that begins so. A manifest is known by its first element, which lies within
    /// the first sniffBytes unless it is made to be missed.
    [[nodiscard]] static Kind kindOfBytes(const QByteArray &beginning);

    static constexpr int sniffBytes = 4096;

    /// What the namespaces of HDS manifests begin with, whose versions differ in the rest.
    static constexpr char hdsNamespace[] = "http://ns.adobe.com/f4m/";
};

#endif
