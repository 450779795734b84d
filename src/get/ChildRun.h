#ifndef CHILDRUN_H
#define CHILDRUN_H

#include "EventReader.h"

#include <QProcess>
#include <QTimer>

/// One run of the program, as a child process in a session of its own, which the terminal's Ctrl-C
/// does not reach.
class ChildRun final : public QObject
{
    Q_OBJECT

public:
    /// @param program the path of the program
    ChildRun(const QString &program, const QStringList &arguments,
             const QProcessEnvironment &environment, QObject *parent = nullptr);
    /// Kills the process if it still runs.
    ~ChildRun() override;

    void start();

    /// Asks the run to end in order, and kills it when it does not within ten seconds. Legal at any
    /// time and again.
    void stop();

    /// The event that told what became of the run; empty when there was none. For after ended().
    [[nodiscard]] QJsonObject result() const { return m_result; }

    /// The last thing that the process said on standard error, cleaned; may be empty.
    [[nodiscard]] QString lastWords() const;

signals:
    void eventCame(const QJsonObject &event, const QByteArray &line);

    /// Once, when the process has ended or could not be started.
    void ended();

private:
    void readEvents();
    void readErrors();
    void finish();

    class Process;
    Process *const m_process;
    QTimer m_patience;
    EventReader m_reader;
    QJsonObject m_result;
    QByteArray m_errors; ///< the end of what was said
    bool m_hasEnded = false;
};

#endif
