#include "FileKind.h"

#include "UniqueFd.h"

#include <QByteArray>
#include <QFile>

#include <array>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

QByteArray headOf(const QString &path)
{
    const UniqueFd fd(::open(QFile::encodeName(path).constData(),
                             O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::array<char, 64> head{};
    const ssize_t count = fd.get() < 0 ? 0 : ::pread(fd.get(), head.data(), head.size(), 0);
    return {head.data(), static_cast<int>(qMax<ssize_t>(0, count))};
}

/// Bytes at an offset that only one kind of file has there.
struct Mark
{
    int offset;
    QByteArray bytes;
    const char *extension;
};

const QList<Mark> &marks()
{
    static const QList<Mark> all{
        {4, "ftypM4A", "m4a"}, {4, "ftypqt", "mov"},  {4, "ftypavif", "avif"},
        {4, "ftyp", "mp4"},    {0, "FLV", "flv"},     {0, "\x1a\x45\xdf\xa3", "mkv"},
        {0, "OggS", "ogg"},    {0, "ID3", "mp3"},     {0, "\xff\xfb", "mp3"},
        {0, "fLaC", "flac"},   {8, "WAVE", "wav"},    {8, "AVI ", "avi"},
        {8, "WEBP", "webp"},   {0, "\x89PNG", "png"}, {0, "\xff\xd8\xff", "jpg"},
        {0, "GIF8", "gif"},
    };
    return all;
}

} // namespace

QString FileKind::extensionOf(const QString &path, const QString &other)
{
    const QByteArray head = headOf(path);
    // The type of an EBML document (RFC 8794) is anywhere in its header.
    if (head.startsWith("\x1a\x45\xdf\xa3") && head.contains("webm"))
        return QStringLiteral("webm");
    for (const Mark &mark : marks()) {
        if (head.mid(mark.offset, mark.bytes.size()) == mark.bytes)
            return QString::fromLatin1(mark.extension);
    }
    return other;
}

bool FileKind::isPlainFile(const QString &path)
{
    struct stat status = {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 && S_ISREG(status.st_mode);
}
