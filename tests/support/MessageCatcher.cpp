#include "MessageCatcher.h"

#include <QMutex>
#include <QMutexLocker>

namespace {

QMutex mutex;
QStringList caught;
QtMessageHandler previousHandler = nullptr;

void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type != QtDebugMsg) {
        previousHandler(type, context, message);
        return;
    }
    const QMutexLocker locker(&mutex);
    caught += message;
}

} // namespace

MessageCatcher::MessageCatcher()
{
    clear();
    previousHandler = qInstallMessageHandler(handleMessage);
}

MessageCatcher::~MessageCatcher()
{
    qInstallMessageHandler(previousHandler);
}

QStringList MessageCatcher::lines() const
{
    const QMutexLocker locker(&mutex);
    return caught;
}

QStringList MessageCatcher::linesWith(const QString &text) const
{
    return lines().filter(text);
}

void MessageCatcher::clear()
{
    const QMutexLocker locker(&mutex);
    caught.clear();
}
