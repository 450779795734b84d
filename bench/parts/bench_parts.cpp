// Times the inner parts of the program beside the least that work on the same bytes can cost: the
// manifest stage beside one pass of an XML reader, the assembly of fragments beside a copy, and the
// scans of page text, plain and hostile, at growing sizes.

#include "AdobeOutputFile.h"
#include "AdobeParser.h"
#include "AdobePreference.h"
#include "PageText.h"
#include "utils.h"

#include <benchmark/benchmark.h>

#include <QXmlStreamReader>

#include <cstring>
#include <malloc.h>

namespace {

constexpr int renditions = 12;
constexpr int bootstrapBytes = 200 * 1000;
constexpr int fragmentBytes = 1 << 20;
constexpr int tagDataBytes = 40 * 1000;

void append32(QByteArray &bytes, quint32 value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(value >> shift);
}

QByteArray box(const char *type, const QByteArray &payload)
{
    QByteArray bytes;
    append32(bytes, static_cast<quint32>(payload.size()) + 8);
    return bytes + type + payload;
}

/// A bootstrap whose fragment table fills so many bytes.
QByteArray bootstrap(int bytes)
{
    constexpr int entryBytes = 16;
    const int entries = bytes / entryBytes;
    QByteArray segments(5, '\0'); // version, flags, no qualities
    append32(segments, 1);
    append32(segments, 1);
    append32(segments, static_cast<quint32>(entries));
    QByteArray fragments(4, '\0'); // version, flags
    append32(fragments, 1000);
    fragments += '\0'; // no qualities
    append32(fragments, static_cast<quint32>(entries));
    for (int i = 0; i < entries; ++i) {
        append32(fragments, static_cast<quint32>(i) + 1);
        append32(fragments, 0);
        append32(fragments, static_cast<quint32>(i) * 1000);
        append32(fragments, 1000);
    }
    QByteArray head(4, '\0'); // version, flags
    append32(head, 1);
    head += '\0'; // a recording
    append32(head, 1000);
    head += QByteArray(16 + 5, '\0'); // times; no names, servers, qualities and texts
    return box("abst", head + '\1' + box("asrt", segments) + '\1' + box("afrt", fragments));
}

QString manifest()
{
    QString text = QStringLiteral("<manifest><id>s</id>");
    const QByteArray table = bootstrap(bootstrapBytes).toBase64();
    for (int i = 0; i < renditions; ++i) {
        text += QStringLiteral("<bootstrapInfo id=\"b%1\">").arg(i) + QString::fromLatin1(table)
            + QStringLiteral("</bootstrapInfo><media bitrate=\"%1\" url=\"s%2\" "
                             "bootstrapinfoid=\"b%2\"/>")
                  .arg(100 * (i + 1))
                  .arg(i);
    }
    return text + QStringLiteral("</manifest>");
}

void manifestStage(benchmark::State &state)
{
    const QString text = manifest();
    CAdobePreference::GetInstance()->SetOption(QStringLiteral("manifest"),
                                               QStringLiteral("http://127.0.0.1/m.f4m"));
    for (auto _ : state) {
        CAdobeParser parser(StopFlag(), [&text](const QString &) { return text; });
        if (!parser.parseManifest())
            state.SkipWithError("the manifest is not usable");
    }
}

void manifestReader(benchmark::State &state)
{
    const QString text = manifest();
    for (auto _ : state) {
        QXmlStreamReader reader(text);
        while (!reader.atEnd())
            benchmark::DoNotOptimize(reader.readNext());
    }
}

QByteArray fragment()
{
    QByteArray tags;
    for (quint32 stamp = 0; tags.size() < fragmentBytes; stamp += 40) {
        QByteArray header(1, '\x09');
        append32(header, tagDataBytes << 8 | (stamp >> 16 & 0xFF));
        append32(header, stamp << 16);
        header += QByteArray(2, '\0');
        tags += header + QByteArray(1, '\x22') + QByteArray(tagDataBytes - 1, 'v');
        append32(tags, tagDataBytes + 11);
    }
    return box("mdat", tags);
}

void assembly(benchmark::State &state)
{
    CAdobeOutputFile *const file = CAdobeOutputFile::GetInstance();
    QByteArray data = fragment();
    file->Begin(1);
    for (auto _ : state)
        file->DecodeFragment(1, data);
    file->End();
    state.SetBytesProcessed(state.iterations() * data.size());
}

void copy(benchmark::State &state)
{
    const QByteArray data = fragment();
    std::vector<char> target(static_cast<size_t>(data.size()));
    for (auto _ : state) {
        std::memcpy(target.data(), data.constData(), target.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * data.size());
}

/// What an ordinary page consists of.
QString ordinaryPage(int size)
{
    QString text =
        QStringLiteral("<!DOCTYPE html><html><head><title>A day at the pond</title>"
                       "<link rel=\"canonical\" href=\"http://site.example/watch/1\">"
                       "<meta property=\"og:image\" content=\"http://site.example/p.jpg\">"
                       "</head><body>");
    for (int i = 0; text.size() < size; ++i) {
        text += QStringLiteral("<div class=\"item\" id=\"i%1\"><a href=\"/watch/%1?from=list&amp;p="
                               "%2\"><img src=\"https://img.site.example/t/%1.jpg\" alt=\"A "
                               "picture\"></a><p>Water lilies, number %1, seen from the western "
                               "bank in the early morning.</p></div>\n")
                    .arg(i)
                    .arg(i % 7);
        if (i % 100 == 0)
            text += QStringLiteral("<script>play(\"http://cdn.site.example/v/%1.mp4\");</script>")
                        .arg(i);
    }
    text.truncate(size);
    return text;
}

/// Openings of everything that is looked for, and the end of nothing.
QString hostilePage(int size)
{
    const QString piece =
        QStringLiteral("\"http <title <meta property=\"og:title og:image canonical' &# %4 ");
    QString text = piece.repeated(size / piece.size() + 1);
    text.truncate(size);
    return text;
}

/// Everything that a page run reads out of a page's text.
void scan(benchmark::State &state, QString (*page)(int))
{
    const QString text = page(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(PageText::mediaAddresses(Utils::DecodeUrl(text)).size());
        benchmark::DoNotOptimize(Utils::parseTitle(text).size());
        benchmark::DoNotOptimize(Utils::parseThumb(text).size());
        benchmark::DoNotOptimize(PageText::canonicalAddress(text).size());
    }
    state.SetBytesProcessed(state.iterations() * text.size());
}

/// Lets the allocator keep freed memory whatever its size, so that no part pays for fresh pages
/// where its peer does not.
void keepFreedMemory()
{
    constexpr int limit = 1 << 30;
    mallopt(M_MMAP_THRESHOLD, limit);
    mallopt(M_TRIM_THRESHOLD, limit);
}

void ignoreMessage(QtMsgType, const QMessageLogContext &, const QString &) { }

} // namespace

BENCHMARK(manifestStage)->Unit(benchmark::kMillisecond);
BENCHMARK(manifestReader)->Unit(benchmark::kMillisecond);
BENCHMARK(assembly)->Unit(benchmark::kMillisecond);
BENCHMARK(copy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(scan, ordinary, ordinaryPage)
    ->Arg(1'000'000)
    ->Arg(4'000'000)
    ->Arg(16'000'000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(scan, hostile, hostilePage)
    ->Arg(1'000'000)
    ->Arg(4'000'000)
    ->Arg(16'000'000)
    ->Unit(benchmark::kMillisecond);

int main(int argc, char *argv[])
{
    qInstallMessageHandler(ignoreMessage);
    keepFreedMemory();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
