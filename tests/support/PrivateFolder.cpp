#include "PrivateFolder.h"

#include "TestFiles.h"

#include <QFile>
#include <QUrl>

#include <array>
#include <cstring>

#include <sys/inotify.h>
#include <unistd.h>

PrivateFolder::PrivateFolder()
    : m_watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    const QByteArray path = QFile::encodeName(m_folder.path());
    if (m_watch < 0 || ::inotify_add_watch(m_watch, path.constData(), IN_OPEN) < 0)
        qFatal("cannot watch %s", path.constData());
}

PrivateFolder::~PrivateFolder()
{
    ::close(m_watch);
}

QString PrivateFolder::address(const QString &name)
{
    const QString path = m_folder.filePath(name);
    if (!QFile::exists(path)) {
        writeFile(path, secret());
        (void)opened(); // by the line before
    }
    return QUrl::fromLocalFile(path).toString();
}

QStringList PrivateFolder::opened()
{
    QStringList names;
    std::array<char, 64 * 1024> events{};
    for (;;) {
        const ssize_t size = ::read(m_watch, events.data(), events.size());
        if (size <= 0)
            return names;
        size_t at = 0;
        while (at < static_cast<size_t>(size)) {
            inotify_event event{};
            std::memcpy(&event, events.data() + at, sizeof event);
            const char *const name = events.data() + at + sizeof event;
            const QString text = event.len == 0 ? QStringLiteral(".") : QString::fromUtf8(name);
            if (!names.contains(text))
                names += text;
            at += sizeof event + event.len;
        }
    }
}

QByteArray PrivateFolder::secret()
{
    return "<a>the-private-text</a>";
}
