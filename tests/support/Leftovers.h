#ifndef LEFTOVERS_H
#define LEFTOVERS_H

#include <QStringList>

/// What runs leave behind that are started while it lives: processes, whatever group, session or
/// namespace they have gone to, and temporary files. One at a time.
class Leftovers final
{
public:
    /// From now on a process whose parent ends becomes the test's child instead of the system's.
    Leftovers();
    ~Leftovers();
    Q_DISABLE_COPY(Leftovers)

    /// The processes below this one that were not there at the beginning, as "number name"; not
    /// those that have ended and that nobody has asked for.
    [[nodiscard]] QStringList processes() const;

    /// New files and folders of engines in the places for temporary files.
    [[nodiscard]] QStringList files() const;

private:
    QStringList m_processesBefore;
    QStringList m_filesBefore;
};

#endif
