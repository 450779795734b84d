#ifndef PAGETEXT_H
#define PAGETEXT_H

#include <QString>
#include <QStringList>

/// Finds titles and addresses in page text of any size and make.
///
/// Every function gives what the regular expression in its comment captures first (as QRegExp
/// understands it, case-sensitive), in time linear in the text's length whatever the text holds;
/// the expressions themselves try again and again to the end of a hostile text. What is not found
/// is empty. Pure functions, safe on any thread.
class PageText final
{
public:
    PageText() = delete;

    /// The text of the title element, undecoded: <title[^>]*>([^<]*)</title
    [[nodiscard]] static QString title(const QString &html);

    /// The title that the page gives for sharing, undecoded:
    /// <meta\s+property\s*=\s*"og:title"\s+content\s*=\s*"([^"]*)"
    [[nodiscard]] static QString sharedTitle(const QString &html);

    /// The address of the preview picture, undecoded:
    /// og:image(?:(?:(?!http).)*)(http(?:(?:(?!['"]).)*))['"]
    [[nodiscard]] static QString thumbAddress(const QString &html);

    /// The page's address as it names itself: :?["']canonical["']\s+href=["']([^"']+)["']
    [[nodiscard]] static QString canonicalAddress(const QString &html);

    /// All quoted media addresses, each once, in order of appearance:
    /// ["'](http[^"']+\.(media extension))["']
    /// @param decodedText page text that Utils::DecodeUrl() has decoded
    [[nodiscard]] static QStringList mediaAddresses(const QString &decodedText);

    /// The quoted addresses that may name a playlist or a manifest, relative ones too: without
    /// blanks, with ".m3u8", ".mpd" or ".f4m" in them in any letter case. What JSON and HTML write
    /// for slashes, ampersands and quotes is undone. Each once, in order of appearance, 64 at most;
    /// one of more than 4,096 characters is none.
    [[nodiscard]] static QStringList manifestAddresses(const QString &html);

    /// The extension that ends a name within an address:
    /// [/\?&][^/\?&=]+\.(media or picture extension)(?:$|\?|&|/)
    [[nodiscard]] static QString format(const QString &address);

    /// Whether an address is that of a media file:
    /// ^https*://(?:[^"]+)\.(media extension)(?:$|\?|&|/)
    [[nodiscard]] static bool isMediaAddress(const QString &address);

    /// Whether an address names a manifest or a fragment of a stream:
    /// https*://[^"]+((?:[s|S]eg[0-9]{1,20}-[F|f]rag[0-9]{1,20})|(?:\.f4m$)|(?:\.f4m\?[^"]+))
    [[nodiscard]] static bool isStreamAddress(const QString &address);
};

#endif
