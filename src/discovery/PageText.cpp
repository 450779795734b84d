#include "PageText.h"

#include <algorithm>
#include <array>

#include <QSet>
#include <QStringView>

namespace {

constexpr std::array<const char *, 24> mediaExtensions{
    "flv",  "ram", "mpg", "mpeg",  "avi", "rm",   "wmv", "mov", "asf", "mp3", "rar", "movie",
    "divx", "rbs", "mp4", "mpeg4", "mpg", "mpeg", "avi", "rm",  "wmv", "mov", "flv", "mp3"};
constexpr std::array<const char *, 3> pictureExtensions{"jpg", "gif", "png"};
constexpr int longestExtension = 5;

bool isQuote(QChar c)
{
    return c == QLatin1Char('"') || c == QLatin1Char('\'');
}

bool isDelimiter(QChar c)
{
    return c == QLatin1Char('/') || c == QLatin1Char('?') || c == QLatin1Char('&');
}

template <typename List> bool contains(const List &extensions, QStringView text)
{
    return text.size() <= longestExtension
        && std::any_of(extensions.begin(), extensions.end(),
                       [text](const char *extension) { return text == QLatin1String(extension); });
}

bool isMediaExtension(QStringView text)
{
    return contains(mediaExtensions, text);
}

/// The index of the next quote of either kind; -1 when there is none.
int nextQuote(const QString &text, int from)
{
    const auto found = std::find_if(text.cbegin() + from, text.cend(), isQuote);
    return found == text.cend() ? -1 : static_cast<int>(found - text.cbegin());
}

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

constexpr int maxManifests = 64;
constexpr int maxAddressLength = 4096;
const QLatin1String quoteEntity("&quot;");

bool isManifestExtensionAt(const QString &text, int at)
{
    const QStringView rest = QStringView(text).mid(at, longestExtension);
    return rest.startsWith(QLatin1String("m3u8"), Qt::CaseInsensitive)
        || rest.startsWith(QLatin1String("mpd"), Qt::CaseInsensitive)
        || rest.startsWith(QLatin1String("f4m"), Qt::CaseInsensitive);
}

/// Whether no address goes on there.
bool endsAddress(QChar c)
{
    return isQuote(c) || c.isSpace() || c == QLatin1Char('<') || c == QLatin1Char('>');
}

bool isQuoteEntityAt(const QString &text, int at)
{
    return text.at(at) == QLatin1Char('&')
        && QStringView(text).mid(at, quoteEntity.size()) == quoteEntity;
}

/// The address without what JSON and HTML write for some of its characters.
QString withoutEscapes(QString address)
{
    address.replace(QLatin1String("\\/"), QLatin1String("/"));
    address.replace(QLatin1String("\\u002f"), QLatin1String("/"), Qt::CaseInsensitive);
    address.replace(QLatin1String("\\u0026"), QLatin1String("&"));
    address.replace(QLatin1String("&amp;"), QLatin1String("&"));
    const int backslash = address.indexOf(QLatin1Char('\\')); // before a quote in a quoted text
    return backslash < 0 ? address : address.left(backslash);
}

/// Reads along a text, piece by piece.
class Cursor final
{
public:
    Cursor(const QString &text, int at)
        : m_text(text)
        , m_at(at)
    {
    }

    [[nodiscard]] int at() const { return m_at; }

    /// Steps over the piece; false when something else stands here.
    bool take(QLatin1String piece)
    {
        if (!QStringView(m_text).mid(m_at).startsWith(piece))
            return false;
        m_at += piece.size();
        return true;
    }

    bool takeQuote()
    {
        if (m_at >= m_text.size() || !isQuote(m_text.at(m_at)))
            return false;
        ++m_at;
        return true;
    }

    /// Steps over one of the characters; false when something else stands here.
    bool takeOneOf(QLatin1String characters)
    {
        if (m_at >= m_text.size() || !characters.contains(m_text.at(m_at)))
            return false;
        ++m_at;
        return true;
    }

    /// Steps over decimal digits, `most` of them at most; false when there is none.
    bool takeDigits(int most)
    {
        const int before = m_at;
        while (m_at < m_text.size() && m_at - before < most && isDigit(m_text.at(m_at)))
            ++m_at;
        return m_at > before;
    }

    /// Steps over white space; false when there is none.
    bool takeSpace()
    {
        const int before = m_at;
        while (m_at < m_text.size() && m_text.at(m_at).isSpace())
            ++m_at;
        return m_at > before;
    }

    /// Steps over an attribute's name and its equals sign, with white space where HTML takes it.
    bool takeAttribute(QLatin1String name)
    {
        if (!takeSpace() || !take(name))
            return false;
        takeSpace();
        if (!take(QLatin1String("=")))
            return false;
        takeSpace();
        return true;
    }

private:
    const QString &m_text;
    int m_at;
};

/// Whether the name of a stream's fragment, such as "Seg1-Frag23", stands at the place.
bool isFragmentAt(const QString &text, int at)
{
    constexpr int mostDigits = 20;
    Cursor cursor(text, at); // the bar is one of the letters
    return cursor.takeOneOf(QLatin1String("s|S")) && cursor.take(QLatin1String("eg"))
        && cursor.takeDigits(mostDigits) && cursor.take(QLatin1String("-"))
        && cursor.takeOneOf(QLatin1String("F|f")) && cursor.take(QLatin1String("rag"))
        && cursor.takeDigits(mostDigits);
}

/// Whether the name of a manifest ends at the place where an address does, or goes on with a query.
bool isManifestAt(const QString &text, int at)
{
    Cursor cursor(text, at);
    if (!cursor.take(QLatin1String(".f4m")))
        return false;
    return cursor.at() == text.size()
        || (cursor.take(QLatin1String("?")) && cursor.at() < text.size()
            && text.at(cursor.at()) != QLatin1Char('"'));
}

/// The place behind the first "http://" or the like; -1 when there is none.
int behindScheme(const QString &text, int from)
{
    const QLatin1String name("http");
    for (int at = text.indexOf(name, from); at >= 0; at = text.indexOf(name, at + 1)) {
        Cursor cursor(text, at + name.size());
        while (cursor.take(QLatin1String("s")))
            continue;
        if (cursor.take(QLatin1String("://")))
            return cursor.at();
    }
    return -1;
}

} // namespace

QString PageText::title(const QString &html)
{
    const QLatin1String element("<title");
    int at = html.indexOf(element);
    while (at >= 0) {
        const int tagEnd = html.indexOf(QLatin1Char('>'), at + element.size());
        const int textEnd = tagEnd < 0 ? -1 : html.indexOf(QLatin1Char('<'), tagEnd + 1);
        if (textEnd < 0)
            break;
        if (Cursor(html, textEnd).take(QLatin1String("</title")))
            return html.mid(tagEnd + 1, textEnd - tagEnd - 1);
        // Whatever opens before textEnd comes to the same end, so none of it needs a try.
        at = html.indexOf(element, textEnd);
    }
    return {};
}

QString PageText::sharedTitle(const QString &html)
{
    const QLatin1String element("<meta");
    for (int at = html.indexOf(element); at >= 0; at = html.indexOf(element, at + 1)) {
        Cursor cursor(html, at + element.size());
        if (!cursor.takeAttribute(QLatin1String("property"))
            || !cursor.take(QLatin1String("\"og:title\""))
            || !cursor.takeAttribute(QLatin1String("content")) || !cursor.take(QLatin1String("\"")))
            continue;
        const int end = html.indexOf(QLatin1Char('"'), cursor.at());
        return end < 0 ? QString() : html.mid(cursor.at(), end - cursor.at());
    }
    return {};
}

QString PageText::thumbAddress(const QString &html)
{
    const QLatin1String name("og:image");
    const QLatin1String scheme("http");
    const int nameAt = html.indexOf(name);
    const int begin = nameAt < 0 ? -1 : html.indexOf(scheme, nameAt + name.size());
    const int end = begin < 0 ? -1 : nextQuote(html, begin + scheme.size());
    return end < 0 ? QString() : html.mid(begin, end - begin);
}

QString PageText::canonicalAddress(const QString &html)
{
    const QLatin1String name("canonical");
    for (int at = html.indexOf(name); at >= 0; at = html.indexOf(name, at + 1)) {
        Cursor cursor(html, at + name.size());
        if (at == 0 || !isQuote(html.at(at - 1)) || !cursor.takeQuote() || !cursor.takeSpace()
            || !cursor.take(QLatin1String("href=")) || !cursor.takeQuote())
            continue;
        const int end = nextQuote(html, cursor.at());
        if (end < 0)
            break;
        if (end > cursor.at())
            return html.mid(cursor.at(), end - cursor.at());
    }
    return {};
}

QStringList PageText::mediaAddresses(const QString &decodedText)
{
    const QLatin1String scheme("http");
    QStringList addresses;
    QSet<QString> known;
    int from = 0; // the first character that may still open an address
    int at = decodedText.indexOf(scheme);
    while (at >= 0) {
        if (at == from || !isQuote(decodedText.at(at - 1))) {
            at = decodedText.indexOf(scheme, at + 1);
            continue;
        }
        const int rest = at + scheme.size();
        const int end = nextQuote(decodedText, rest);
        if (end < 0)
            break;
        const QStringView tail = QStringView(decodedText).mid(rest, end - rest);
        const auto point = tail.lastIndexOf(QLatin1Char('.'));
        const bool isMedia = point > 0 && isMediaExtension(tail.mid(point + 1));
        if (isMedia) {
            const QString address = decodedText.mid(at, end - at);
            if (!known.contains(address)) {
                known.insert(address);
                addresses += address;
            }
        }
        // A quote that closed an address opens no other one.
        from = isMedia ? end + 1 : end;
        at = decodedText.indexOf(scheme, from);
    }
    return addresses;
}

QStringList PageText::manifestAddresses(const QString &html)
{
    QStringList addresses;
    int begin = -1; // of what a quote has opened
    bool isManifest = false; // as far as that has been read
    for (int i = 0; i < html.size() && addresses.size() < maxManifests; ++i) {
        const bool isEntity = isQuoteEntityAt(html, i);
        if (!isEntity && !endsAddress(html.at(i))) {
            isManifest = isManifest
                || (html.at(i) == QLatin1Char('.') && isManifestExtensionAt(html, i + 1));
            continue;
        }
        if (begin >= 0 && isManifest && i - begin <= maxAddressLength) {
            const QString address = withoutEscapes(html.mid(begin, i - begin));
            if (!address.isEmpty() && !addresses.contains(address))
                addresses += address;
        }
        begin = isEntity ? i + quoteEntity.size() : isQuote(html.at(i)) ? i + 1 : -1;
        i = isEntity ? begin - 1 : i;
        isManifest = false;
    }
    return addresses;
}

QString PageText::format(const QString &address)
{
    const QStringView text(address);
    qsizetype begin = -1; // of the name that is being read; -1 where none can be
    qsizetype point = -1; // the last one so far
    for (qsizetype i = 0; i <= text.size(); ++i) {
        const bool isLast = i == text.size();
        if (isLast || isDelimiter(text.at(i))) {
            if (begin >= 0 && point > begin) {
                const QStringView extension = text.mid(point + 1, i - point - 1);
                if (isMediaExtension(extension) || contains(pictureExtensions, extension))
                    return extension.toString();
            }
            begin = i + 1;
        } else if (text.at(i) == QLatin1Char('=')) {
            begin = -1;
        } else if (text.at(i) == QLatin1Char('.')) {
            point = i;
        }
    }
    return {};
}

bool PageText::isMediaAddress(const QString &address)
{
    Cursor cursor(address, 0);
    if (!cursor.take(QLatin1String("http")))
        return false;
    while (cursor.take(QLatin1String("s")))
        continue;
    if (!cursor.take(QLatin1String("://")))
        return false;

    const QStringView rest = QStringView(address).mid(cursor.at());
    const auto quote = rest.indexOf(QLatin1Char('"'));
    const auto limit = quote < 0 ? rest.size() : quote;
    for (auto point = rest.indexOf(QLatin1Char('.'), 1); point >= 0 && point < limit;
         point = rest.indexOf(QLatin1Char('.'), point + 1)) {
        const QStringView tail = rest.mid(point + 1);
        const QStringView candidate =
            tail.left(std::min<qsizetype>(tail.size(), longestExtension + 1));
        const auto end = std::find_if(candidate.cbegin(), candidate.cend(), isDelimiter);
        if (isMediaExtension(candidate.left(end - candidate.cbegin())))
            return true;
    }
    return false;
}

bool PageText::isStreamAddress(const QString &address)
{
    int from = behindScheme(address, 0);
    while (from >= 0) {
        int at = from;
        while (at < address.size() && address.at(at) != QLatin1Char('"')) {
            // Something has to stand between the scheme and the name.
            if (at > from && (isFragmentAt(address, at) || isManifestAt(address, at)))
                return true;
            ++at;
        }
        from = behindScheme(address, at);
    }
    return false;
}
