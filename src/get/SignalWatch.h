#ifndef SIGNALWATCH_H
#define SIGNALWATCH_H

#include <QObject>

/// Turns the process's signals into those of the event loop. One for a process.
class SignalWatch final : public QObject
{
    Q_OBJECT

public:
    explicit SignalWatch(QObject *parent = nullptr);
    ~SignalWatch() override;

signals:
    /// SIGINT, SIGTERM or SIGHUP, each time. One that is ignored from the start stays ignored.
    void stopAsked();

    /// The terminal has another size.
    void resized();

private:
    void readSignals();
};

#endif
