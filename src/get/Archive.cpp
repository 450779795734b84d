#include "Archive.h"

#include "FolderLock.h"
#include "OutputPipe.h"

#include <QCryptographicHash>
#include <QFile>

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

constexpr int lockPatienceMs = 10000;
constexpr int mostLineBytes = 256 * 1024;

QByteArray sumOf(const QByteArray &address)
{
    return QCryptographicHash::hash(address, QCryptographicHash::Md5);
}

} // namespace

bool Archive::open(const QString &path)
{
    const int flags = O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK;
    m_fd = UniqueFd(::open(QFile::encodeName(path).constData(), flags, 0666));
    struct stat status = {};
    if (m_fd.get() >= 0 && ::fstat(m_fd.get(), &status) == 0 && S_ISREG(status.st_mode) && readOn())
        return true;
    m_fd.reset();
    return false;
}

/// Takes in what has come to the file since it was last read.
bool Archive::readOn()
{
    struct stat status = {};
    if (::fstat(m_fd.get(), &status) != 0)
        return false;
    if (status.st_size < m_readBytes) { // somebody has edited it
        m_readBytes = 0;
        m_rest.clear();
        m_known.clear();
    }
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t count = ::pread(m_fd.get(), buffer.data(), buffer.size(), m_readBytes);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return count == 0;
        m_readBytes += count;
        m_rest.append(buffer.data(), static_cast<int>(count));
        takeLines();
    }
}

void Archive::takeLines()
{
    int start = 0;
    for (int end = m_rest.indexOf('\n'); end >= 0; end = m_rest.indexOf('\n', start)) {
        const QByteArray line = m_rest.mid(start, end - start).trimmed();
        if (!line.isEmpty() && !line.startsWith('#'))
            m_known.insert(sumOf(line));
        start = end + 1;
    }
    m_rest.remove(0, start);
    if (m_rest.size() > mostLineBytes) // no address
        m_rest = QByteArrayLiteral("#");
}

bool Archive::contains(const QString &address)
{
    const QByteArray sum = sumOf(address.toUtf8());
    if (m_known.contains(sum))
        return true;
    return isOpen() && readOn() && m_known.contains(sum);
}

bool Archive::add(const QString &address)
{
    if (!isOpen())
        return false;
    if (!FolderLock::take(m_fd.get(), lockPatienceMs))
        return false;
    bool isAdded = readOn();
    if (isAdded && !m_known.contains(sumOf(address.toUtf8()))) {
        // A line that was never finished, by a machine that lost its power, must not spoil this
        // one.
        const QByteArray end = m_rest.isEmpty() ? QByteArray() : QByteArrayLiteral("\n");
        isAdded = OutputPipe::write(m_fd.get(), end + address.toUtf8() + '\n')
            && ::fdatasync(m_fd.get()) == 0 && readOn();
    }
    ::flock(m_fd.get(), LOCK_UN);
    return isAdded;
}
