#include "EventCheck.h"

#include <QJsonDocument>
#include <QProcess>

bool EventCheck::isValid(const QByteArray &lines)
{
    QProcess checker;
    checker.setProcessChannelMode(QProcess::MergedChannels);
    // The system's own interpreter: the package with the validator is installed for no other.
    checker.start(QStringLiteral("/usr/bin/python3"),
                  {QStringLiteral(CLIPWEIR_EVENT_CHECK), QStringLiteral(CLIPWEIR_EVENT_SCHEMA)});
    checker.write(lines);
    checker.closeWriteChannel();
    const bool isDone = checker.waitForFinished(60000);
    const bool isValid =
        isDone && checker.exitStatus() == QProcess::NormalExit && checker.exitCode() == 0;
    if (!isValid)
        qWarning("events do not fit the schema: %s", checker.readAll().constData());
    return isValid;
}

QList<QJsonObject> EventCheck::eventsOf(const QByteArray &lines)
{
    QList<QJsonObject> events;
    const QList<QByteArray> split = lines.split('\n');
    for (const QByteArray &line : split) {
        if (!line.isEmpty())
            events += QJsonDocument::fromJson(line).object();
    }
    return events;
}
