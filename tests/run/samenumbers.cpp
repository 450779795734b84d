// Preloaded into a run: the first files of which the toolkit or the run asks for a number that they
// stand for in the system have that of the file that the environment names. This is what the
// system does to one pair of files in thousands.

#include <cstdlib>

#include <sys/ipc.h>
#include <sys/stat.h>

namespace {

constexpr int mostFiles = 4;

/// Whether the file is one of the first.
bool isOneOfTheFirst(ino_t inode)
{
    static ino_t known[mostFiles];
    static int count = 0;
    for (int i = 0; i < count; ++i) {
        if (known[i] == inode)
            return true;
    }
    if (count == mostFiles)
        return false;
    known[count++] = inode;
    return true;
}

key_t numberOf(const struct stat &info, int projectId)
{
    return static_cast<key_t>((static_cast<unsigned>(projectId) << 24)
                              | ((info.st_dev & 0xffU) << 16) | (info.st_ino & 0xffffU));
}

} // namespace

extern "C" __attribute__((visibility("default"))) key_t ftok(const char *path, int projectId)
{
    struct stat info = {};
    struct stat other = {};
    if (::stat(path, &info) != 0)
        return -1;
    const char *const otherPath = std::getenv("SAME_NUMBER_AS");
    if (!otherPath || ::stat(otherPath, &other) != 0 || info.st_ino == other.st_ino
        || !isOneOfTheFirst(info.st_ino))
        return numberOf(info, projectId);
    return numberOf(other, projectId);
}
