#include "utils.h"

#include <algorithm>
#include <array>
#include <limits>

#include <QEventLoop>
#include <QRegExp>
#include <QSet>
#include <QUrl>

#include "PageText.h"

namespace {

const QLatin1String metaNamePattern(R"re(<meta\s+name\s*=\s*"%1"\s+content\s*=\s*"([^"]*)")re");
const QLatin1String
    metaPropertyPattern(R"re(<meta\s+property\s*=\s*"%1"\s+content\s*=\s*"([^"]*)")re");
const QLatin1String linkRelFirstPattern(R"re(<link\s+rel\s*=\s*"%1"\s+href\s*=\s*"([^"]*)")re");
const QLatin1String linkHrefFirstPattern(R"re(<link\s+href\s*=\s*"([^"]*)"\s+rel\s*=\s*"%1")re");

bool isHexDigit(QChar c)
{
    return (c >= QLatin1Char('0') && c <= QLatin1Char('9'))
        || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))
        || (c >= QLatin1Char('A') && c <= QLatin1Char('F'));
}

bool isDecimalDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

/// The number that the digits spell, which are all hexadecimal; 0 when they are no decimal number,
/// and more than any character has when it does not fit.
uint referencedCode(const QStringRef &digits, bool isHex)
{
    if (!isHex && !std::all_of(digits.cbegin(), digits.cend(), isDecimalDigit))
        return 0;
    bool fits = false;
    const uint code = digits.toUInt(&fits, isHex ? 16 : 10);
    return fits ? code : std::numeric_limits<uint>::max();
}

/// Appends the characters of references, one after the other.
class ReferencedText final
{
public:
    explicit ReferencedText(QString &result)
        : m_result(result)
    {
    }

    void append(uint code)
    {
        // Both halves of a character may have a reference of their own.
        const bool isSecondHalf = m_firstHalf != 0 && m_result.size() == m_firstHalfEnd
            && code <= QChar::LastValidCodePoint && QChar::isLowSurrogate(code);
        if (isSecondHalf) {
            m_result.chop(1);
            m_result.append(QChar(m_firstHalf)).append(QChar(code));
        } else if (code > QChar::LastValidCodePoint || QChar::isSurrogate(code)) {
            m_result += QChar(QChar::ReplacementCharacter);
        } else if (QChar::requiresSurrogates(code)) {
            m_result.append(QChar(QChar::highSurrogate(code)));
            m_result.append(QChar(QChar::lowSurrogate(code)));
        } else {
            m_result += QChar(code);
        }
        m_firstHalf = QChar::isHighSurrogate(code) ? code : 0;
        m_firstHalfEnd = m_result.size();
    }

private:
    QString &m_result;
    uint m_firstHalf = 0; ///< 0 when the last reference was none
    int m_firstHalfEnd = 0;
};

/// The first string for which the two markers are found; shared by text and bytes.
template <typename Text, typename Marker>
Text between(const Text &text, Marker begin, int beginLength, Marker end)
{
    const int beginAt = text.indexOf(begin);
    if (beginAt < 0)
        return Text();
    const int from = beginAt + beginLength;
    const int endAt = text.indexOf(end, from);
    if (from > endAt)
        return Text();
    return text.mid(from, endAt - from);
}

/// Replaces all occurrences in one pass. QString::replace() moves the rest of the text once for
/// every thousand of them, which makes it quadratic on a text that holds nothing else.
QString replaced(const QString &text, QLatin1String before, QLatin1String after)
{
    int at = text.indexOf(before);
    if (at < 0)
        return text;
    QString result;
    result.reserve(text.size());
    int copiedTo = 0;
    for (; at >= 0; at = text.indexOf(before, copiedTo)) {
        result += text.midRef(copiedTo, at - copiedTo);
        result += after;
        copiedTo = at + before.size();
    }
    result += text.midRef(copiedTo);
    return result;
}

QString resolvedAddress(const QUrl &base, const QString &address)
{
    return base.resolved(QUrl(address)).toString();
}

/// Whether a character may read otherwise once its text has been decoded: besides the sign of an
/// encoded one these are halves of characters and what a decoder of UTF-8 takes for a mark.
bool isChangedByDecoding(QChar c)
{
    return c == QLatin1Char('%') || c.isSurrogate() || c.isNull() || c == QChar::ByteOrderMark;
}

} // namespace

QString decodeHtmlNumber(const QString &text)
{
    QString result;
    result.reserve(text.size());
    ReferencedText references(result);
    int copiedTo = 0;
    int at = text.indexOf(QLatin1String("&#"));
    while (at >= 0) {
        int digitsAt = at + 2;
        const bool isHex = digitsAt < text.size() && text.at(digitsAt) == QLatin1Char('x');
        if (isHex)
            ++digitsAt;
        int end = digitsAt;
        while (end < text.size() && isHexDigit(text.at(end)))
            ++end;
        if (end > digitsAt && end < text.size() && text.at(end) == QLatin1Char(';')) {
            result += text.midRef(copiedTo, at - copiedTo);
            references.append(referencedCode(text.midRef(digitsAt, end - digitsAt), isHex));
            copiedTo = end + 1;
            end = copiedTo;
        }
        at = text.indexOf(QLatin1String("&#"), end);
    }
    result += text.midRef(copiedTo);
    return result;
}

QString Utils::RegexString(const QString &text, const QString &pattern)
{
    QRegExp expression(pattern);
    return expression.indexIn(text) < 0 ? QString() : expression.cap(1);
}

QString Utils::RegexString2(const QString &text, const QString &patternTemplate,
                            const QString &value)
{
    return RegexString(text, patternTemplate.arg(value));
}

void Utils::RegexStringList(const QString &baseAddress, const QString &text, const QString &pattern,
                            QStringList &list, bool resolve)
{
    const QString decoded = DecodeUrl(text);
    const QUrl base(baseAddress);
    QSet<QString> known(list.cbegin(), list.cend());
    QRegExp expression(pattern);
    int from = 0;
    while (from <= decoded.size()) {
        const int at = expression.indexIn(decoded, from);
        if (at < 0)
            break;
        const QString capture = expression.cap(1);
        const QString item = resolve ? resolvedAddress(base, capture) : capture;
        if (!known.contains(item)) {
            known.insert(item);
            list += item;
        }
        // An empty match would be found again and again at the same place.
        from = at + std::max(expression.matchedLength(), 1);
    }
}

QString Utils::MidString(const QString &text, const QString &begin, const QString &end)
{
    return between<QString, const QString &>(text, begin, begin.size(), end);
}

QByteArray Utils::MidString(const QByteArray &text, const char *begin, const char *end)
{
    return between<QByteArray, const char *>(text, begin, static_cast<int>(qstrlen(begin)), end);
}

QString Utils::GetMetaName(const QString &html, const QString &name)
{
    return RegexString2(html, metaNamePattern, name);
}

QString Utils::GetMetaProperty(const QString &html, const QString &property)
{
    return RegexString2(html, metaPropertyPattern, property);
}

QString Utils::GetMetaProperty(const QString &html, const QString &tag, const QString &attribute,
                               const QString &value, const QString &contentAttribute)
{
    const QString pattern = QLatin1Char('<') + tag + QLatin1String("\\s+") + attribute
        + QLatin1String("\\s*=\\s*\"%1\"\\s+") + contentAttribute
        + QLatin1String("\\s*=\\s*\"([^\"]*)\"");
    return RegexString2(html, pattern, value);
}

QString Utils::GetMetaLink(const QString &html, const QString &rel)
{
    const QString address = RegexString2(html, linkRelFirstPattern, rel);
    return address.isEmpty() ? RegexString2(html, linkHrefFirstPattern, rel) : address;
}

QString Utils::GetMetaTitle(const QString &html)
{
    QString title = GetMetaName(html, QStringLiteral("title"));
    if (title.isEmpty())
        title = MidString(html, QStringLiteral("<title>"), QStringLiteral("</title>")).trimmed();
    return DecodeHtml(title);
}

QString Utils::parseTitle(const QString &html)
{
    QString title = PageText::sharedTitle(html);
    if (title.isEmpty())
        title = PageText::title(html);
    return DecodeHtml(title);
}

QString Utils::parseThumb(const QString &html)
{
    return DecodeUrl(PageText::thumbAddress(html));
}

QString Utils::getFormatFromUrl(const QString &address)
{
    return PageText::format(address);
}

bool Utils::matchMediaType(const QString &address)
{
    return PageText::isMediaAddress(address);
}

QString Utils::DecodeHtml(const QString &text)
{
    QString result = text;
    if (result.contains(QLatin1String("&#")))
        result = decodeHtmlNumber(result);
    if (!result.contains(QLatin1Char('&')))
        return result;
    result = replaced(result, QLatin1String("&gt;"), QLatin1String(">"));
    result = replaced(result, QLatin1String("&lt;"), QLatin1String("<"));
    result = replaced(result, QLatin1String("&nbsp;"), QLatin1String(" "));
    result = replaced(result, QLatin1String("&quot;"), QLatin1String("\""));
    // Goes last: what it uncovers is text, not another entity.
    return replaced(result, QLatin1String("&amp;"), QLatin1String("&"));
}

QString Utils::DecodeUrl(const QString &text)
{
    const QString colons = replaced(text, QLatin1String("\\x3a"), QLatin1String(":"));
    const QString plain = replaced(colons, QLatin1String("\\x2f"), QLatin1String("/"));
    // Whole pages come here: one that stays as it is, is not copied.
    const bool mayChange = std::any_of(plain.cbegin(), plain.cend(), isChangedByDecoding);
    return mayChange ? QUrl::fromPercentEncoding(plain.toUtf8()) : plain;
}

void Utils::DecodeUrl(QStringList &list)
{
    for (QString &element : list)
        element = DecodeUrl(element);
}

QString Utils::DecodeU6(const QString &text)
{
    return DecodeUrl(replaced(text, QLatin1String("\\u0025"), QLatin1String("%")));
}

void Utils::resolved(QStringList &list, const QString &baseAddress)
{
    const QUrl base(baseAddress);
    for (QString &element : list)
        element = resolvedAddress(base, element);
}

QString Utils::SafeFileName(const QString &name, QChar replacement)
{
    static const std::array<QChar, 6> invalid{QLatin1Char('/'), QLatin1Char('\\'),
                                              QChar(0),         QLatin1Char('*'),
                                              QLatin1Char('?'), QLatin1Char('!')};
    QString result = name;
    const auto isInvalid = [](QChar c) {
        return std::find(invalid.cbegin(), invalid.cend(), c) != invalid.cend();
    };
    std::replace_if(result.begin(), result.end(), isInvalid, replacement);
    return result;
}

QMap<QString, QString> Utils::ParseUrlParam(const QString &address)
{
    const int mark = address.indexOf(QLatin1Char('?'));
    const QString query = mark > 0 ? address.mid(mark + 1) : address;
    QMap<QString, QString> parameters;
    const QStringList parts = query.split(QLatin1Char('&'));
    for (const QString &part : parts) {
        const int equals = part.indexOf(QLatin1Char('='));
        if (equals >= 0 && part.indexOf(QLatin1Char('='), equals + 1) < 0)
            parameters[part.left(equals)] = part.mid(equals + 1);
    }
    return parameters;
}

void Utils::WaitFor(QObject *object, const char *signal)
{
    if (!object)
        return;
    QEventLoop loop;
    if (!QObject::connect(object, signal, &loop, SLOT(quit())))
        return;
    QObject::connect(object, &QObject::destroyed, &loop, &QEventLoop::quit);
    loop.exec();
}

void Utils::CloseProcessWindow(qint64 processId, const QString &title)
{
    Q_UNUSED(processId)
    Q_UNUSED(title)
}
