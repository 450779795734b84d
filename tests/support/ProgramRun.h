#ifndef PROGRAMRUN_H
#define PROGRAMRUN_H

#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

/// One run of the built program, as a host sees it: arguments in, standard error and exit code
/// out. Its working folder, home and cookie file are in a temporary folder of its own, and so is
/// its cache folder, which knows the media framework's plug-ins from the first run of the build,
/// whatever folder the environment names. The stop flag
/// that a killed run leaves is removed: a later run would find it if its server got the same port.
class ProgramRun final
{
public:
    /// The program that is started: the one with shorter times, unless the environment variable
    /// CLIPWEIR_SHIPPED_RUNS is set.
    [[nodiscard]] static QString program();

    /// Takes away what a killed run of another test may have left of the pages among the arguments,
    /// whose server had the same port as one of this test. What runs of this test leave stays: once
    /// a page is known, nothing more is done for it. Every start does it before.
    static void forgetOtherTests(const QStringList &arguments);

    ProgramRun();
    ~ProgramRun();
    Q_DISABLE_COPY(ProgramRun)

    /// Changes the environment of runs that are started afterwards.
    void setEnvironment(const QString &name, const QString &value);

    /// Lets runs that are started afterwards be started by another program: its name and its
    /// arguments, which the program's path and arguments follow.
    void setLauncher(const QStringList &launcher);

    /// Lets runs that are started afterwards look at all plug-ins themselves.
    void forgetPlugins();

    /// Gives what the run has learnt of plug-ins to all later runs of the build.
    [[nodiscard]] bool shareRegistry() const;

    void start(const QStringList &arguments);

    /// Starts the program as the child of a host of its own, a shell, which process() then stands
    /// for. The program's process id is in the file "pid", its lines are in the file "lines".
    void startUnderHost(const QStringList &arguments);

    /// Starts another program where the program would be started, such as one that starts it.
    void startOther(const QString &program, const QStringList &arguments);

    /// Waits, with the event loop running, until the program has ended. Returns false and kills it
    /// when it takes longer. Also returns false when it was to tell events and its standard output
    /// holds anything that does not fit their schema.
    bool waitForEnd(int timeoutMs = 60000);

    /// start() and waitForEnd().
    bool run(const QStringList &arguments, int timeoutMs = 60000);

    /// Waits until standard error contains the text.
    bool waitForOutput(const QByteArray &text, int timeoutMs = 30000);

    [[nodiscard]] QByteArray errorOutput() const; ///< all of standard error so far
    [[nodiscard]] QList<QByteArray> errorLines() const; ///< without line ends
    [[nodiscard]] QByteArray standardOutput();

    /// The events of a run with "--events", which waitForEnd() has checked.
    [[nodiscard]] QList<QJsonObject> events() const { return m_events; }

    /// Those of that name.
    [[nodiscard]] QList<QJsonObject> events(const char *name) const;

    [[nodiscard]] int exitCode() const;
    [[nodiscard]] bool endedNormally() const; ///< false after a crash or a kill

    [[nodiscard]] QString folder() const; ///< the working folder
    [[nodiscard]] QString path(const QString &relative) const; ///< a path in the working folder
    [[nodiscard]] QString cachePath(const QString &relative) const; ///< a path in the cache folder
    [[nodiscard]] QByteArray fileContent(const QString &relative) const;

    QProcess &process();

private:
    void kill();
    [[nodiscard]] bool takeEvents();
    void takeRegistry() const;
    [[nodiscard]] QString cacheFolder() const; ///< of the environment, with a last slash

    QTemporaryDir m_folder;
    QTemporaryDir m_cacheFolder;
    QProcessEnvironment m_environment;
    QStringList m_launcher;
    QProcess m_process;
    bool m_knowsPlugins = true;
    QString m_pageAddress;
    QByteArray m_errorOutput;
    bool m_tellsEvents = false;
    QList<QJsonObject> m_events;
};

#endif
