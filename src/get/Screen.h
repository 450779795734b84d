#ifndef SCREEN_H
#define SCREEN_H

#include <QStringList>

/// The lower end of a terminal: lines that stay, and below them lines that are drawn again and
/// again in the same place. For terminals that know the usual control sequences (ECMA-48).
class Screen final
{
public:
    /// @param fd a terminal, or for tests anything
    explicit Screen(int fd);

    /// Columns of the terminal as it is now; 80 when it does not tell.
    [[nodiscard]] int columns() const;
    [[nodiscard]] int rows() const; ///< the same of its rows, of which 24 are usual

    /// Writes lines that stay, above those that do not, and draws those. Lines must be clean, and
    /// those that do not stay no wider than the terminal.
    void draw(const QStringList &staying, const QStringList &passing);

    /// False once the terminal has gone.
    [[nodiscard]] bool isThere() const { return m_isThere; }

private:
    [[nodiscard]] int rowsOfLast() const;

    const int m_fd;
    QStringList m_last; ///< passing lines as they were drawn last
    bool m_isThere = true;
};

#endif
