// Times every scan of page text on texts that are made to be expensive, at 1 MB and at 10 MB: a
// scan that is linear takes ten times as long on the bigger one.

#include "PageText.h"
#include "utils.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <vector>

#include <malloc.h>

namespace {

constexpr int smallSize = 1'000'000;
constexpr int bigSize = 10'000'000;

struct Scan
{
    const char *name;
    std::function<int(const QString &)> run; ///< returns the length of what was found
};

/// A text that is its beginning and then the same piece again and again.
struct Kind
{
    const char *name;
    const char *begin;
    const char *piece;
};

const std::vector<Scan> scans{
    {"title", [](const QString &text) { return Utils::parseTitle(text).size(); }},
    {"meta-title", [](const QString &text) { return Utils::GetMetaTitle(text).size(); }},
    {"meta-name",
     [](const QString &text) { return Utils::GetMetaName(text, QStringLiteral("key")).size(); }},
    {"meta-property",
     [](const QString &text) {
         return Utils::GetMetaProperty(text, QStringLiteral("key")).size();
     }},
    {"meta-link",
     [](const QString &text) { return Utils::GetMetaLink(text, QStringLiteral("key")).size(); }},
    {"thumb", [](const QString &text) { return Utils::parseThumb(text).size(); }},
    {"canonical", [](const QString &text) { return PageText::canonicalAddress(text).size(); }},
    {"media-addresses",
     [](const QString &text) { return PageText::mediaAddresses(Utils::DecodeUrl(text)).size(); }},
    {"regex-list",
     [](const QString &text) {
         QStringList list;
         Utils::RegexStringList(QString(), text, QStringLiteral("[\"'](http[^\"']+)[\"']"), list,
                                false);
         return list.size();
     }},
    {"format", [](const QString &text) { return Utils::getFormatFromUrl(text).size(); }},
    {"media-type", [](const QString &text) { return Utils::matchMediaType(text) ? 1 : 0; }},
    {"numbers", [](const QString &text) { return decodeHtmlNumber(text).size(); }},
    {"decode-html", [](const QString &text) { return Utils::DecodeHtml(text).size(); }},
    {"decode-url", [](const QString &text) { return Utils::DecodeUrl(text).size(); }},
    {"decode-u6", [](const QString &text) { return Utils::DecodeU6(text).size(); }},
};

const std::vector<Kind> kinds{
    {"letters", "", "a"},
    {"spaces", "", " "},
    {"quotes", "", "\""},
    {"mixed-quotes", "", "'\""},
    {"points", "http://", "."},
    {"slashes", "", "/"},
    {"slash-letters", "", "/a"},
    {"angles", "", "<"},
    {"percents", "", "%"},
    {"percent-codes", "", "%41"},
    {"script-colons", "", "\\x3a"},
    {"script-percents", "", "\\u0025"},
    {"number-openings", "", "&#"},
    {"numbers", "", "&#65;"},
    {"number-digits", "&#", "1"},
    {"number-hex-digits", "&#x", "f"},
    {"entities", "", "&lt;"},
    {"ampersands", "", "&amp;"},
    {"og-image", "", "og:image"},
    {"og-image-http", "", "og:image http"},
    {"og-image-then-http", "og:image", " http"},
    {"title-openings", "", "<title"},
    {"titles-open", "", "<title>"},
    {"titles-with-elements", "", "<title>a<b>"},
    {"title-brackets", "<title", ">"},
    {"title-letters", "<title>", "a"},
    {"metas", "", "<meta"},
    {"meta-spaces", "<meta", " "},
    {"meta-many-spaces", "", "<meta               "},
    {"meta-names", "", "<meta name=\"key\""},
    {"meta-name-spaces", "<meta name=\"key\"", " "},
    {"meta-name-contents", "", "<meta name=\"key\" content="},
    {"meta-content-open", "<meta name=\"key\" content=\"", "<meta name=key content="},
    {"meta-properties", "", "<meta property=\"key\" content="},
    {"meta-shared-titles", "", "<meta property=\"og:title\" content="},
    {"meta-shared-title-open", "<meta property=\"og:title\" content=\"", "<meta property="},
    {"links", "", "<link rel=\"key\""},
    {"link-hrefs", "", "<link href=\""},
    {"link-href-open", "<link href=\"", "<link href="},
    {"link-href-rels", "", "<link href=\"\" rel=\""},
    {"canonicals", "", "\"canonical\" "},
    {"canonical-spaces", "\"canonical\"", " "},
    {"canonical-hrefs", "", "\"canonical\" href="},
    {"canonical-open", "\"canonical\" href=\"", "canonical href="},
    {"http", "", "http"},
    {"http-addresses", "http://", "http://"},
    {"quoted-http", "", "\"http"},
    {"quoted-http-open", "\"http", "http"},
    {"media", "", "\"http://h/a.mp4\" "},
    {"media-no-close", "\"http", ".mp4"},
    {"media-almost", "http://", "/a.mp4x"},
    {"media-points", "\"http", "."},
    {"parameters", "http://h/", "?a=.mp4&"},
};

const QString &textOf(const Kind &kind, int size)
{
    // Only the text of the running benchmark is kept; they run one after the other.
    static const Kind *builtKind = nullptr;
    static QString text;
    if (builtKind == &kind && text.size() == size)
        return text;
    const QString piece = QString::fromLatin1(kind.piece);
    text = QString::fromLatin1(kind.begin);
    text += piece.repeated(size / piece.size() + 1);
    text.truncate(size);
    builtKind = &kind;
    return text;
}

void runScan(benchmark::State &state, const Scan &scan, const Kind &kind)
{
    const QString &text = textOf(kind, static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(scan.run(text));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void registerAll()
{
    for (const int size : {smallSize, bigSize}) {
        for (const Kind &kind : kinds) {
            for (const Scan &scan : scans) {
                const std::string name = std::string(scan.name) + "/" + kind.name;
                benchmark::RegisterBenchmark(name.c_str(), runScan, scan, kind)
                    ->Arg(size)
                    ->Unit(benchmark::kMillisecond);
            }
        }
    }
}

/// Lets the allocator keep freed memory whatever its size. Otherwise only the big texts would pay
/// for fresh pages from the system, and the ratio would show that instead of the scan.
void keepFreedMemory()
{
    constexpr int limit = 1 << 30;
    mallopt(M_MMAP_THRESHOLD, limit);
    mallopt(M_TRIM_THRESHOLD, limit);
}

} // namespace

int main(int argc, char *argv[])
{
    keepFreedMemory();
    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
