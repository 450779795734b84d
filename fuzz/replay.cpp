// Stands in for libFuzzer where a target is one of the tests: feeds it every file of a corpus, and
// of each file a fixed number of mutations, which are the same in every run.
//
// usage: fuzz_<name> <mutations of each file> <file or folder>...
//
// The input at work lies in the file "<name>.input" of the working folder, so that whatever ends
// the process leaves behind what ended it; given alone and with 0 mutations it does so again.
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

using Bytes = std::vector<uint8_t>;
using Random = std::mt19937;

constexpr size_t maxInputBytes = 64 * 1024;
constexpr size_t maxChunkBytes = 64;
constexpr unsigned maxSteps = 4; // that lead from a file to a mutation

[[noreturn]] void fail(const char *what, const QString &path)
{
    std::fprintf(stderr, "%s: %s\n", what, qUtf8Printable(path));
    std::exit(2);
}

/// 0 up to `end`, exclusive; written out, since a distribution is another one with every library.
size_t below(Random &random, size_t end)
{
    return end == 0 ? 0 : random() % end;
}

void insert(Bytes &bytes, size_t at, const Bytes &chunk)
{
    bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), chunk.begin(), chunk.end());
}

Bytes chunkOf(const Bytes &bytes, Random &random)
{
    const size_t from = below(random, bytes.size());
    const size_t count = std::min(below(random, maxChunkBytes) + 1, bytes.size() - from);
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(from);
    return Bytes(begin, begin + static_cast<std::ptrdiff_t>(count));
}

/// Sets 1, 2, 4 or 8 bytes to a big-endian number of the kind that breaks sums.
void setNumber(Bytes &bytes, size_t at, Random &random)
{
    static constexpr uint64_t numbers[] = {
        0, 1, 7, 8, 0x7F, 0x80, 0xFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, UINT64_MAX};
    const uint64_t number = numbers[below(random, std::size(numbers))];
    const size_t width = size_t(1) << below(random, 4);
    for (size_t i = 0; i < width && at + i < bytes.size(); ++i)
        bytes[at + i] = static_cast<uint8_t>(number >> 8 * (width - 1 - i));
}

/// One small change.
void mutate(Bytes &bytes, const Bytes &other, Random &random)
{
    if (bytes.empty())
        bytes.push_back(static_cast<uint8_t>(random()));
    const size_t at = below(random, bytes.size());
    switch (below(random, 7)) {
    case 0:
        bytes[at] ^= static_cast<uint8_t>(1U << below(random, 8));
        break;
    case 1:
        bytes[at] = static_cast<uint8_t>(random());
        break;
    case 2:
        setNumber(bytes, at, random);
        break;
    case 3:
        bytes.resize(at);
        break;
    case 4: {
        const size_t end = std::min(bytes.size(), at + 1 + below(random, maxChunkBytes));
        bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                    bytes.begin() + static_cast<std::ptrdiff_t>(end));
        break;
    }
    case 5:
        insert(bytes, at, chunkOf(bytes, random));
        break;
    default:
        insert(bytes, at, chunkOf(other, random));
        break;
    }
    bytes.resize(std::min(bytes.size(), maxInputBytes));
}

QStringList filesBelow(const QStringList &paths)
{
    QStringList files;
    for (const QString &path : paths) {
        const QFileInfo info(path);
        if (!info.exists())
            fail("there is no such file or folder", path);
        if (!info.isDir()) {
            files += path;
            continue;
        }
        const QDir dir(path);
        const QStringList names = dir.entryList(QDir::Files, QDir::Name);
        for (const QString &name : names)
            files += dir.filePath(name);
    }
    return files;
}

Bytes contentOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        fail("the file cannot be read", path);
    const QByteArray content = file.readAll();
    return Bytes(content.cbegin(), content.cend());
}

void run(const QString &keptPath, const Bytes &input)
{
    QFile kept(keptPath);
    const auto size = static_cast<qint64>(input.size());
    if (!kept.open(QIODevice::WriteOnly)
        || kept.write(reinterpret_cast<const char *>(input.data()), size) != size)
        fail("the file cannot be written", keptPath);
    kept.close();
    // An exact copy: the sanitizer then sees the first byte that is read past its end.
    const Bytes exact(input.begin(), input.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

} // namespace

int main(int argc, char *argv[])
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments += QString::fromLocal8Bit(argv[i]);
    bool isNumber = false;
    const int mutations = arguments.value(0).toInt(&isNumber);
    if (!isNumber || mutations < 0 || arguments.size() < 2)
        fail("usage: <mutations of each file> <file or folder>...", arguments.value(0));
    const QStringList files = filesBelow(arguments.mid(1));
    if (files.isEmpty())
        fail("there is nothing to run", arguments.at(1));

    const QString keptPath =
        QFileInfo(QString::fromLocal8Bit(argv[0])).fileName() + QLatin1String(".input");
    std::vector<Bytes> corpus;
    for (const QString &file : files)
        corpus.push_back(contentOf(file));
    Random random(20120229);
    run(keptPath, {});
    for (const Bytes &input : corpus) {
        run(keptPath, input);
        for (int i = 0; i < mutations; ++i) {
            Bytes mutated = input;
            for (size_t steps = 1 + below(random, maxSteps); steps > 0; --steps)
                mutate(mutated, corpus[below(random, corpus.size())], random);
            run(keptPath, mutated);
        }
    }
    QFile::remove(keptPath);
    std::printf("%d files, %d mutations of each\n", files.size(), mutations);
    return 0;
}
