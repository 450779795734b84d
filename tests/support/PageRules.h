#ifndef PAGERULES_H
#define PAGERULES_H

#include "PageText.h"
#include "utils.h"

#include <QRegExp>
#include <QStringList>
#include <QVector>

#include <functional>

#define PAGE_MEDIA_EXTENSIONS                                                                      \
    "flv|ram|mpg|mpeg|avi|rm|wmv|mov|asf|mp3|rar|movie|divx|rbs|mp4|mpeg4|mpg|mpeg|avi|rm|wmv|mov" \
    "|flv|mp3"

/// The scans of page text, each with the plain regular expression that it has to agree with.
namespace page {

using Results = QStringList;
using Scan = std::function<Results(const QString &)>;

inline QString u(const char *text)
{
    return QString::fromUtf8(text);
}

/// What the plain expression captures in its first match; nothing when it does not match.
inline Scan firstCapture(const char *pattern)
{
    const QRegExp expression{u(pattern)};
    Q_ASSERT(expression.isValid() && expression.captureCount() >= 1);
    return [expression](const QString &text) {
        QRegExp copy(expression);
        return copy.indexIn(text) < 0 ? Results{QString()} : Results{copy.cap(1)};
    };
}

/// What the plain expression captures in all of its matches, each once.
inline Scan allCaptures(const char *pattern)
{
    const QRegExp expression{u(pattern)};
    Q_ASSERT(expression.isValid());
    return [expression](const QString &text) {
        QRegExp copy(expression);
        Results results;
        int from = 0;
        while ((from = copy.indexIn(text, from)) >= 0) {
            if (!results.contains(copy.cap(1)))
                results += copy.cap(1);
            from += copy.matchedLength();
        }
        return results;
    };
}

inline Scan single(QString (*function)(const QString &))
{
    return [function](const QString &text) { return Results{function(text)}; };
}

inline Results mediaTruth(const QString &text)
{
    return {PageText::isMediaAddress(text) ? u("yes") : u("no")};
}

inline Results plainMediaTruth(const QString &text)
{
    const QRegExp expression(u("^https*://(?:[^\"]+)\\.(" PAGE_MEDIA_EXTENSIONS ")(?:$|\\?|&|/)"));
    Q_ASSERT(expression.isValid());
    return {expression.indexIn(text) >= 0 ? u("yes") : u("no")};
}

inline Results streamTruth(const QString &text)
{
    return {PageText::isStreamAddress(text) ? u("yes") : u("no")};
}

inline Results plainStreamTruth(const QString &text)
{
    QRegExp expression(u("https*://[^\"]+((?:[s|S]eg[0-9]{1,20}-[F|f]rag[0-9]{1,20})"
                         "|(?:\\.f4m$)|(?:\\.f4m\\?[^\"]+))"));
    Q_ASSERT(expression.isValid());
    return {expression.indexIn(text) >= 0 && !expression.cap(1).isEmpty() ? u("yes") : u("no")};
}

/// Numeric references by the plain expression; for references that are one character of the
/// basic plane.
inline Results plainNumbers(const QString &text)
{
    QRegExp expression(u("&#(x?)([0-9a-fA-F]+);"));
    QString result;
    int from = 0;
    int at = 0;
    while ((at = expression.indexIn(text, from)) >= 0) {
        result += text.midRef(from, at - from);
        const int base = expression.cap(1) == u("x") ? 16 : 10;
        result += QChar(static_cast<ushort>(expression.cap(2).toUInt(nullptr, base)));
        from = at + expression.matchedLength();
    }
    return {result + text.midRef(from)};
}

struct Rule
{
    const char *name;
    Scan scan;
    Scan plain;
    QStringList tokens; ///< what the random texts are made of
};

inline const QVector<Rule> &rules()
{
    static const QVector<Rule> all{
        {"title",
         single(PageText::title),
         firstCapture("<title[^>]*>([^<]*)</title"),
         {u("<title"), u(">"), u("<"), u("</title"), u("a"), u(" "), u("/"), u("<title>"),
          u("title")}},
        {"shared title",
         single(PageText::sharedTitle),
         firstCapture("<meta\\s+property\\s*=\\s*\"og:title\"\\s+content\\s*=\\s*\"([^\"]*)\""),
         {u("<meta"), u(" "), u("property"), u("="), u("\"og:title\""), u("content"), u("\""),
          u("a"), u("\n"), u("<meta property=\"og:title\""), u(" content=\""), u(" content="),
          u("<meta property = "), u("og:title")}},
        {"thumb",
         single(PageText::thumbAddress),
         firstCapture("og:image(?:(?:(?!http).)*)(http(?:(?:(?!['\"]).)*))['\"]"),
         {u("og:image"), u("http"), u("\""), u("'"), u("h"), u("ttp"), u("a"), u("\n"), u("og:"),
          u("image")}},
        {"canonical",
         single(PageText::canonicalAddress),
         firstCapture(":?[\"']canonical[\"']\\s+href=[\"']([^\"']+)[\"']"),
         {u("canonical"), u("\""), u("'"), u(" "), u("href="), u("a"), u(":"), u("\"canonical' "),
          u("'canonical\"\t"), u("'canonical\" href="), u("http://h/")}},
        {"media addresses",
         PageText::mediaAddresses,
         allCaptures("[\"'](http[^\"']+\\.(" PAGE_MEDIA_EXTENSIONS "))[\"']"),
         {u("\""), u("'"), u("http"), u("."), u("mp4"), u("mpeg"), u("4"), u("a"), u(".flv\""),
          u("\"http"), u(".mp3'"), u("rm"), u("\"http://a.rm\""), u("h"), u("\n")}},
        {"format",
         single(PageText::format),
         firstCapture("[/\\?&][^/\\?&=]+\\.(" PAGE_MEDIA_EXTENSIONS "|jpg|gif|png)(?:$|\\?|&|/)"),
         {u("/"), u("?"), u("&"), u("="), u("."), u("mp4"), u("mpeg"), u("4"), u("jpg"), u("a"),
          u(".rm"), u("/a.flv"), u("#"), u("\n")}},
        {"media address",
         mediaTruth,
         plainMediaTruth,
         {u("http"), u("s"), u("://"), u("http://"), u("https://a"), u("."), u("mp4"), u("mpeg"),
          u("4"), u("\""), u("/"), u("?"), u("&"), u("a"), u(".rm"), u("\n")}},
        {"stream address",
         streamTruth,
         plainStreamTruth,
         {u("http"), u("s"), u("://"), u("https://"), u("http://a"), u("Seg"), u("|eg"), u("1"),
          u("-Frag"), u("-|rag"), u("-"), u("seg1"), u("frag2"), u(".f4m"), u("?"), u("\""),
          u("123456789"), u("12345678901"), u("a")}},
        {"numbers",
         single(decodeHtmlNumber),
         plainNumbers,
         {u("&#"), u("x"), u("4"), u("a"), u("F"), u(";"), u("&"), u("#"), u("g"), u("&#65;"),
          u("&#x42;"), u("X")}},
    };
    return all;
}

} // namespace page

#undef PAGE_MEDIA_EXTENSIONS

#endif
