#include "Screen.h"

#include "OutputPipe.h"
#include "TextWidth.h"

#include <sys/ioctl.h>

namespace {

constexpr int usualColumns = 80;
constexpr int usualRows = 24;

} // namespace

Screen::Screen(int fd)
    : m_fd(fd)
{
}

int Screen::columns() const
{
    struct winsize size = {};
    return ::ioctl(m_fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usualColumns;
}

int Screen::rows() const
{
    struct winsize size = {};
    return ::ioctl(m_fd, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : usualRows;
}

/// A terminal that has become narrower has broken the lines.
int Screen::rowsOfLast() const
{
    const int width = columns();
    int count = 0;
    for (const QString &line : m_last)
        count += qMax(1, (TextWidth::of(line) + width - 1) / width);
    return count;
}

void Screen::draw(const QStringList &staying, const QStringList &passing)
{
    QString text;
    if (!m_last.isEmpty())
        text += QStringLiteral("\x1b[%1A").arg(rowsOfLast());
    text += QLatin1String("\r\x1b[J");
    for (const QString &line : staying)
        text += line + QLatin1Char('\n');
    for (const QString &line : passing)
        text += line + QLatin1Char('\n');
    m_last = passing;
    m_isThere = m_isThere && OutputPipe::write(m_fd, text.toUtf8());
}
