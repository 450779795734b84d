#ifndef STANDIN_H
#define STANDIN_H

#include <QList>
#include <QStringList>

/// A scripted program that takes the place of an external one at a given path. It needs python3.
class StandIn final
{
public:
    /// @param path where the program goes; what is there is replaced, the folder is made
    explicit StandIn(const QString &path);

    /// Writes the program and forgets earlier runs.
    /// @param body Python statements, which end the program with exit code 0 unless they say
    /// otherwise. They may use
    ///   run       number of this run, from 1
    ///   args      list of the arguments
    ///   say(b)    writes bytes to standard output and waits until the reader has taken them, so
    ///             that they are a chunk of their own
    ///   wait()    does nothing until proceed() is called, once for each wait()
    ///   hang()    says and does nothing any more, until killed or until nobody reads
    ///   os, sys   the modules
    [[nodiscard]] bool install(const QByteArray &body);

    /// Puts a link to another program in its place.
    [[nodiscard]] bool link(const QString &program);

    /// Ends the next wait() of the program.
    void proceed();

    /// Takes the program away.
    void remove();

    /// The arguments of every run so far.
    [[nodiscard]] QList<QStringList> runs() const;

private:
    [[nodiscard]] QString logPath() const;
    [[nodiscard]] QString signPath(int number) const;

    const QString m_path;
    int m_signs = 0; ///< how often proceed() was called
};

#endif
