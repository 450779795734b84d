// What ffmpeg prints about a media file. The word "NEXT" keeps the chunks apart. An input that
// begins with "*" is one chunk as long as they come, made of the rest again and again: a search
// that is not linear would not end in time.
#include "FfmpegOutput.h"
#include "FuzzSupport.h"

#include <QRegExp>
#include <QStringList>

namespace {

constexpr int longChunkBytes = 64 * 1024;
constexpr int longestForPlain = 500;
constexpr int mostDigitsValue = 999999999; // of a width or height

/// The picture size by the plain expression; 0 x 0 when there is none.
QSize plainSize(const QByteArray &chunk)
{
    QRegExp expression(QStringLiteral(":?\\s*(\\d{2,9})x(\\d{2,9})\\s*"));
    if (expression.indexIn(QString::fromLatin1(chunk)) < 0)
        return {0, 0};
    return {expression.cap(1).toInt(), expression.cap(2).toInt()};
}

/// The duration where it is plain: at most three parts, all of them small numbers.
void checkDuration(const QByteArray &chunk, int duration)
{
    QRegExp expression(QStringLiteral("Duration:([^,]+)"));
    if (expression.indexIn(QString::fromLatin1(chunk)) < 0) {
        FUZZ_CHECK(duration == 0);
        return;
    }
    QRegExp plain(QStringLiteral("\\s*([0-9]{1,4}):([0-9]{1,4}):([0-9]{1,4})\\.[0-9]*"));
    if (plain.exactMatch(expression.cap(1))) {
        FUZZ_CHECK(duration
                   == plain.cap(1).toInt() * 3600 + plain.cap(2).toInt() * 60
                       + plain.cap(3).toInt());
    }
}

void checkChunk(const QByteArray &chunk)
{
    FfmpegOutput output;
    output.read(chunk);
    const QSize size = output.pictureSize();
    FUZZ_CHECK(size.width() >= 0 && size.width() <= mostDigitsValue);
    FUZZ_CHECK(size.height() >= 0 && size.height() <= mostDigitsValue);
    if (chunk.size() <= longestForPlain) {
        FUZZ_CHECK(size == plainSize(chunk));
        checkDuration(chunk, output.duration());
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    QByteArray input = fuzz::bytes(data, size);
    if (input.startsWith('*') && input.size() > 1) {
        input.remove(0, 1);
        checkChunk(input.repeated(longChunkBytes / input.size()));
        return 0;
    }
    FfmpegOutput output;
    for (const QByteArray &chunk : fuzz::split(input, QByteArrayLiteral("NEXT"))) {
        const int duration = output.duration();
        const QSize pictureSize = output.pictureSize();
        output.read(chunk);
        FUZZ_CHECK(duration == 0 || output.duration() == duration);
        FUZZ_CHECK(pictureSize.width() == 0 || output.pictureSize() == pictureSize);
        checkChunk(chunk);
    }
    return 0;
}
