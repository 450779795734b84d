#ifndef UNIQUEFD_H
#define UNIQUEFD_H

#include <utility>

#include <unistd.h>

/// Owns a file descriptor and closes it.
class UniqueFd final
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd)
        : m_fd(fd)
    {
    }
    ~UniqueFd() { reset(); }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    UniqueFd(UniqueFd &&other) noexcept
        : m_fd(std::exchange(other.m_fd, -1))
    {
    }
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }

    /// Negative when there is none.
    [[nodiscard]] int get() const { return m_fd; }

    void reset()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

#endif
