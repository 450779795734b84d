#include "MessageCatcher.h"

#include <mutex>

namespace {

std::mutex mutex; // standard, so that thread analysers see it
QStringList caught;
QtMessageHandler previousHandler = nullptr;

void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type != QtDebugMsg) {
        previousHandler(type, context, message);
        return;
    }
    const std::lock_guard locker(mutex);
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
    const std::lock_guard locker(mutex);
    return caught;
}

QStringList MessageCatcher::linesWith(const QString &text) const
{
    return lines().filter(text);
}

void MessageCatcher::clear()
{
    const std::lock_guard locker(mutex);
    caught.clear();
}
