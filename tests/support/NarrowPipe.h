#ifndef NARROWPIPE_H
#define NARROWPIPE_H

#include <QByteArray>
#include <QFile>

#include <array>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/// A pipe as some hosts give it: a name in the run's folder, with room for little.
class NarrowPipe final
{
public:
    explicit NarrowPipe(const QString &path)
    {
        const QByteArray name = QFile::encodeName(path);
        ::mkfifo(name.constData(), 0600);
        m_fd = ::open(name.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ::fcntl(m_fd, F_SETPIPE_SZ, 4096);
    }

    ~NarrowPipe() { ::close(m_fd); }
    Q_DISABLE_COPY(NarrowPipe)

    /// Leaves no room for another line.
    void fill()
    {
        while (::write(m_fd, "#", 1) == 1)
            ++m_filled;
    }

    /// What has come, without what fill() put there.
    QByteArray read()
    {
        std::array<char, 4096> bytes{};
        for (;;) {
            const ssize_t count = ::read(m_fd, bytes.data(), bytes.size());
            if (count <= 0)
                break;
            m_lines.append(bytes.data(), static_cast<int>(count));
        }
        QByteArray lines = m_lines;
        return lines.replace(QByteArray(m_filled, '#'), QByteArray());
    }

private:
    int m_fd = -1;
    int m_filled = 0;
    QByteArray m_lines;
};

#endif
