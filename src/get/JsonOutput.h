#ifndef JSONOUTPUT_H
#define JSONOUTPUT_H

#include "Scheduler.h"
#include "Summary.h"

#include <QElapsedTimer>

/// The events of all pages on one output, one JSON object a line, each with the address of its
/// page; and some of the command's own.
class JsonOutput final : public QObject
{
    Q_OBJECT

public:
    JsonOutput(const Scheduler &scheduler, int fd, QObject *parent = nullptr);

    /// The last event.
    void finish(const Summary &summary);

    /// The line with the page's address as its first member, and without what a terminal would
    /// obey.
    [[nodiscard]] static QByteArray withPage(const QByteArray &line, const QString &address);

    /// The end of a page, in the form in which runs tell it. The path and the outcome are those of
    /// the command.
    [[nodiscard]] static QJsonObject resultOf(const PageFacts &facts, const QJsonObject &result,
                                              qint64 elapsedMs);

signals:
    /// Nobody reads any more.
    void readerGone();

private:
    void writeEnd(const PageFacts &facts, const QJsonObject &result);
    void writeOwn(const QString &name, const QString &address, QJsonObject members);
    void write(const QByteArray &line);

    const int m_fd;
    QElapsedTimer m_clock;
};

#endif
