#ifndef UTILS_H
#define UTILS_H

#include <QByteArray>
#include <QChar>
#include <QMap>
#include <QString>
#include <QStringList>

class QObject;

/// Replaces numeric character references ("&#66;", "&#x42;") by their characters.
///
/// A reference above 0xFFFF becomes a surrogate pair, one that names no character (a surrogate, or
/// above 0x10FFFF) becomes U+FFFD, and one whose digits do not fit its base (hex letters without
/// the "x") becomes the character with code 0.
QString decodeHtmlNumber(const QString &text);

/// Pulls values out of HTML text and addresses. Nothing here keeps state, and all but WaitFor() may
/// be called on any thread. Patterns are QRegExp patterns in its default syntax, case-sensitive.
/// What is not found is an empty string.
class Utils final
{
public:
    Utils() = delete;

    /// The first capture of the first match.
    static QString RegexString(const QString &text, const QString &pattern);

    /// RegexString() with "%1" of the template replaced by the value as it stands: characters that
    /// mean something in a pattern keep their meaning.
    static QString RegexString2(const QString &text, const QString &patternTemplate,
                                const QString &value);

    /// Percent-decodes the text and appends the first capture of every match to the list, unless
    /// the list holds an equal one already.
    /// @param resolve whether captures are first resolved against the base address
    static void RegexStringList(const QString &baseAddress, const QString &text,
                                const QString &pattern, QStringList &list, bool resolve);

    /// What stands between the first begin marker and the first end marker after it.
    static QString MidString(const QString &text, const QString &begin, const QString &end);
    static QByteArray MidString(const QByteArray &text, const char *begin, const char *end);

    /// The content of <meta name="..." content="...">.
    static QString GetMetaName(const QString &html, const QString &name);

    /// The content of <meta property="..." content="...">.
    static QString GetMetaProperty(const QString &html, const QString &property);

    /// The value of the content attribute of <tag attribute="value" contentAttribute="...">.
    static QString GetMetaProperty(const QString &html, const QString &tag,
                                   const QString &attribute, const QString &value,
                                   const QString &contentAttribute);

    /// The href of <link rel="..." href="...">, in either order of the two.
    static QString GetMetaLink(const QString &html, const QString &rel);

    /// The decoded title as the page's meta element or else its title element gives it.
    static QString GetMetaTitle(const QString &html);

    /// The decoded title as the page gives it for sharing, or else its title element. Not trimmed.
    static QString parseTitle(const QString &html);

    /// The address of the page's preview picture.
    static QString parseThumb(const QString &html);

    /// The media or picture extension that ends a name within the address, such as "mp4".
    static QString getFormatFromUrl(const QString &address);

    /// Whether this is an http or https address that names a media file.
    static bool matchMediaType(const QString &address);

    /// Decodes numeric references and the entities gt, lt, nbsp, quot and amp, once.
    static QString DecodeHtml(const QString &text);

    /// Decodes the script escapes of ":" and "/" ("\x3a", "\x2f"), then percent-decodes as UTF-8.
    static QString DecodeUrl(const QString &text);

    /// DecodeUrl() for every element, in place.
    static void DecodeUrl(QStringList &list);

    /// Decodes the script escape of "%" ("\u0025"), then as DecodeUrl().
    static QString DecodeU6(const QString &text);

    /// Resolves every element against the base address, in place.
    static void resolved(QStringList &list, const QString &baseAddress);

    /// Replaces the characters that a file name cannot or should not have.
    static QString SafeFileName(const QString &name, QChar replacement);

    /// The parameters of the query, undecoded; the last one of a name counts. Text without "?" is
    /// taken as a query. Parts with no "=" or with more than one are left out.
    static QMap<QString, QString> ParseUrlParam(const QString &address);

    /// Processes events until the object emits the signal (as SIGNAL() gives it) or is destroyed.
    /// There is no time-out. Returns at once when there is no such object or signal.
    static void WaitFor(QObject *object, const char *signal);

    /// Processes have no windows to close on this platform: does nothing.
    static void CloseProcessWindow(qint64 processId, const QString &title);
};

#endif
