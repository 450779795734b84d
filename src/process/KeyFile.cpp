#include "KeyFile.h"

#include <QDir>
#include <QFile>
#include <QSharedMemory>

#include <cerrno>
#include <ctime>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int projectId = 'Q'; // the toolkit's
constexpr int foreignId = -1; // of what others may not look at
constexpr int unknownId = -2;

// A file system may hand out numbers in order, through a whole row of those that are taken; there
// are no more of either than the system allows blocks.
constexpr size_t maxCandidates = 8192;

const QLatin1String blockPrefix("qipc_sharedmemory_");
const QLatin1String lockPrefix("qipc_systemsem_");
const QLatin1String candidatePrefix("clipweir_keyfile_");

/// The number that the toolkit makes from the file; -1 without a file.
key_t numberOf(const QString &path)
{
    return ::ftok(QFile::encodeName(path).constData(), projectId);
}

/// What an earlier claim() noted; nothing when the file cannot be read.
std::optional<int> notedId(const QString &path)
{
    const int fd =
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return std::nullopt;
    char text[32] = {};
    const ssize_t length = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    bool isNumber = false;
    const int id =
        QByteArray(text, static_cast<int>(qMax<ssize_t>(length, 0))).trimmed().toInt(&isNumber);
    return isNumber ? id : unknownId;
}

QString pathOf(const QString &key, KeyFile::Kind kind)
{
    QString path = QSharedMemory(key).nativeKey();
    if (kind == KeyFile::Kind::Lock)
        path.replace(path.lastIndexOf(blockPrefix), blockPrefix.size(), lockPrefix);
    return path;
}

/// Takes away what a run left that was killed while it looked for a number.
void removeOldCandidate(const char *path)
{
    constexpr time_t oldS = 60;
    struct stat info = {};
    if (::stat(path, &info) == 0 && ::time(nullptr) - info.st_mtime > oldS)
        ::unlink(path);
}

/// Files that are made to find a free number and hold on to those that are not. They go with it.
class Candidates final
{
public:
    Candidates() = default;
    ~Candidates()
    {
        for (const QByteArray &path : m_paths)
            ::unlink(path.constData());
    }
    Q_DISABLE_COPY(Candidates)

    /// Makes one more and returns its path; an empty one when that cannot be done.
    QString next()
    {
        if (m_paths.size() >= maxCandidates)
            return {};
        QByteArray path =
            QFile::encodeName(KeyFile::folder()) + '/' + candidatePrefix.latin1() + "XXXXXX";
        const int fd = ::mkostemp(path.data(), O_CLOEXEC);
        if (fd < 0)
            return {};
        ::close(fd);
        m_paths.push_back(path);
        return QFile::decodeName(path);
    }

private:
    std::vector<QByteArray> m_paths;
};

} // namespace

KeyFile::KeyFile(const QString &key, Kind kind)
    : m_kind(kind)
    , m_path(pathOf(key, kind))
{
}

QString KeyFile::folder()
{
    return QDir::tempPath();
}

bool KeyFile::exists() const
{
    return QFile::exists(m_path);
}

bool KeyFile::isAlone() const
{
    const key_t number = numberOf(m_path);
    if (number == -1)
        return false;
    const std::optional<int> id = idUnder(number);
    return (!id || isOwn(*id)) && !numbersOfOthers().contains(number);
}

bool KeyFile::settle() const
{
    return isAlone() || replace();
}

bool KeyFile::replace() const
{
    const bool hadFile = exists();
    const QSet<key_t> taken = numbersOfOthers();
    Candidates candidates;
    QString candidate = candidates.next();
    while (!candidate.isEmpty() && !isFree(candidate, taken))
        candidate = candidates.next();
    if (candidate.isEmpty())
        return false;
    if (publish(candidate, hadFile))
        return true;
    return !hadFile && isAlone(); // a host has made one meanwhile
}

/// Gives the candidate the file's name. Under that it never has a number of somebody else's: a host
/// may look at any time.
bool KeyFile::publish(const QString &candidate, bool hadFile) const
{
    const QByteArray from = QFile::encodeName(candidate);
    const QByteArray to = QFile::encodeName(m_path);
    if (hadFile)
        return ::rename(from.constData(), to.constData()) == 0;
    if (::link(from.constData(), to.constData()) == 0)
        return true;
    if (errno == EEXIST)
        return false;
    // A file system without links. Where it does not even move files, one that is made in place may
    // happen to be alone.
    if (::rename(from.constData(), to.constData()) == 0)
        return true;
    const int fd = ::open(to.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    ::close(fd);
    const bool isUsable = isFree(m_path, numbersOfOthers());
    if (!isUsable)
        ::unlink(to.constData());
    return isUsable;
}

void KeyFile::claim() const
{
    const key_t number = numberOf(m_path);
    const std::optional<int> id = number == -1 ? std::nullopt : idUnder(number);
    if (!id || *id == foreignId)
        return;
    const int fd = ::open(QFile::encodeName(m_path).constData(),
                          O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return;
    const QByteArray text = QByteArray::number(*id) + '\n';
    if (::write(fd, text.constData(), static_cast<size_t>(text.size())) != text.size())
        (void)::ftruncate(fd, 0); // an empty one is believed
    ::close(fd);
}

bool KeyFile::isUsed() const
{
    const key_t number = numberOf(m_path);
    return number != -1 && idUnder(number);
}

void KeyFile::removeLock() const
{
    const key_t number = numberOf(m_path);
    if (number == -1)
        return;
    // The file goes last. Without it nobody would find the lock again.
    const std::optional<int> id = idUnder(number);
    if (id && isOwn(*id))
        ::semctl(*id, 0, IPC_RMID);
    ::unlink(QFile::encodeName(m_path).constData());
}

void KeyFile::removeIfUnused() const
{
    if (!isUsed())
        ::unlink(QFile::encodeName(m_path).constData());
}

/// The system's name for what stands under the number, if there is anything.
std::optional<int> KeyFile::idUnder(key_t number) const
{
    const int id = m_kind == Kind::Block ? ::shmget(number, 0, 0) : ::semget(number, 0, 0);
    if (id >= 0)
        return id;
    return errno == ENOENT ? std::nullopt : std::optional(foreignId);
}

/// Whether what stands under the number may be this file's. A host may have made it, who notes
/// nothing.
bool KeyFile::isOwn(int id) const
{
    if (id == foreignId)
        return false;
    const std::optional<int> noted = notedId(m_path);
    return !noted || *noted == unknownId || *noted == id;
}

/// The numbers of all other files of the kind, whether anything stands under them or not. A look
/// through the folder that there may be thousands of files in, so by the plain calls.
QSet<key_t> KeyFile::numbersOfOthers() const
{
    QSet<key_t> numbers;
    const QByteArray folderPath = QFile::encodeName(folder());
    const std::unique_ptr<DIR, int (*)(DIR *)> dir(::opendir(folderPath.constData()), ::closedir);
    if (!dir)
        return numbers;
    const QByteArray ownPath = QFile::encodeName(m_path);
    const QLatin1String prefix = m_kind == Kind::Block ? blockPrefix : lockPrefix;
    while (const dirent *const entry = ::readdir(dir.get())) {
        const QLatin1String name(entry->d_name);
        const bool isCandidate = name.startsWith(candidatePrefix);
        if (!isCandidate && !name.startsWith(prefix))
            continue;
        const QByteArray path = folderPath + '/' + entry->d_name;
        if (isCandidate)
            removeOldCandidate(path.constData());
        else if (path != ownPath)
            numbers.insert(::ftok(path.constData(), projectId));
    }
    return numbers;
}

bool KeyFile::isFree(const QString &candidate, const QSet<key_t> &taken) const
{
    const key_t number = numberOf(candidate);
    return number != -1 && !taken.contains(number) && !idUnder(number);
}
