// Page text and addresses: titles, addresses, formats, decoding, parameters. An input that begins
// with
// "*" is a long text, made of the rest again and again: a scan that is not linear would not end in
// time.
#include "FuzzSupport.h"
#include "HostEvents.h"
#include "HostLine.h"
#include "PageRules.h"
#include "WebAddress.h"

#include <algorithm>

namespace {

constexpr int longTextCharacters = 60 * 1000;
constexpr int longestForPlain = 200;

void checkRules(const QString &text)
{
    for (const page::Rule &rule : page::rules()) {
        // The plain one for numbers knows no surrogates and no digits that do not fit.
        if (qstrcmp(rule.name, "numbers") != 0)
            FUZZ_CHECK(rule.scan(text) == rule.plain(text));
    }
}

void checkLists(const QString &text)
{
    const QStringList addresses = PageText::mediaAddresses(Utils::DecodeUrl(text));
    QStringList list = addresses;
    FUZZ_CHECK(list.removeDuplicates() == 0);
    for (const QString &address : addresses) {
        FUZZ_CHECK(address.startsWith(QLatin1String("http")));
        FUZZ_CHECK(!address.contains(QLatin1Char('"')) && !address.contains(QLatin1Char('\'')));
        HostEvents::send(event::CandidateFound{address});
    }
    Utils::DecodeUrl(list);
    Utils::resolved(list, QStringLiteral("http://h.test/dir/page?q"));
    FUZZ_CHECK(list.size() == addresses.size());
}

void checkDecoding(const QString &text)
{
    const QString decoded = Utils::DecodeHtml(text);
    FUZZ_CHECK(decoded.size() <= text.size());
    if (!text.contains(QLatin1Char('&')))
        FUZZ_CHECK(decoded == text);
    FUZZ_CHECK(Utils::DecodeUrl(text).size() <= text.size());
    FUZZ_CHECK(Utils::DecodeU6(text).size() <= text.size());
    QString escaped = text;
    escaped.replace(QLatin1Char('&'), QLatin1String("&amp;"))
        .replace(QLatin1Char('<'), QLatin1String("&lt;"))
        .replace(QLatin1Char('>'), QLatin1String("&gt;"))
        .replace(QLatin1Char('"'), QLatin1String("&#34;"));
    FUZZ_CHECK(Utils::DecodeHtml(escaped) == text || text.contains(QLatin1Char('&')));
}

void checkCredentials(const QString &text)
{
    const QString cleaned = WebAddress::withoutCredentials(text);
    FUZZ_CHECK(cleaned.size() <= text.size());
    FUZZ_CHECK(WebAddress::withoutCredentials(cleaned) == cleaned);
    if (text.size() <= longestForPlain)
        FUZZ_CHECK(QRegExp(QStringLiteral("://[^/?#]*@")).indexIn(cleaned) < 0);
}

void checkNames(const QString &text)
{
    const QString name = Utils::SafeFileName(text, QLatin1Char('_'));
    FUZZ_CHECK(name.size() == text.size());
    for (const char invalid : {'/', '\\', '\0', '*', '?', '!'})
        FUZZ_CHECK(!name.contains(QLatin1Char(invalid)));
    const QMap<QString, QString> parameters = Utils::ParseUrlParam(text);
    for (auto pair = parameters.cbegin(); pair != parameters.cend(); ++pair) {
        FUZZ_CHECK(!pair.key().contains(QLatin1Char('='))
                   && !pair.key().contains(QLatin1Char('&')));
        FUZZ_CHECK(text.contains(pair.key() + QLatin1Char('=') + pair.value()));
    }
}

void checkMeta(const QString &html)
{
    const QString name = QStringLiteral("title");
    const QString content = Utils::GetMetaProperty(html, name);
    FUZZ_CHECK(content
               == Utils::GetMetaProperty(html, QStringLiteral("meta"), QStringLiteral("property"),
                                         name, QStringLiteral("content")));
    FUZZ_CHECK(!Utils::GetMetaName(html, name).contains(QLatin1Char('"')));
    FUZZ_CHECK(!Utils::GetMetaLink(html, QStringLiteral("canonical")).contains(QLatin1Char('"')));
    FUZZ_CHECK(Utils::GetMetaTitle(html).size() <= html.size());
    HostLine::sendQuoted(Utils::parseTitle(html));
    HostLine::sendQuoted(Utils::parseThumb(html));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    QString text = fuzz::text(fuzz::bytes(data, size));
    if (text.startsWith(QLatin1Char('*')) && text.size() > 1) {
        text.remove(0, 1);
        text = text.repeated(longTextCharacters / text.size());
        for (const page::Rule &rule : page::rules())
            rule.scan(text);
    } else if (text.size() <= longestForPlain) {
        checkRules(text);
    }
    checkLists(text);
    checkDecoding(text);
    checkNames(text);
    checkCredentials(text);
    checkMeta(text);
    return 0;
}
