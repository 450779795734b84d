#ifndef DEVTOOLS_H
#define DEVTOOLS_H

#include "EngineProcess.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>

/// An engine that is spoken with by the DevTools protocol (version 1.3), in JSON. A session is a
/// line to one target, such as a page or a frame of it; the one without a name is the browser's.
/// Main thread.
class DevTools final : public QObject
{
    Q_OBJECT

public:
    /// What a call brings: its result, empty when it has failed.
    using Answer = std::function<void(const QJsonObject &result)>;

    explicit DevTools(std::unique_ptr<EngineKeeper> keeper, QObject *parent = nullptr);

    /// @param answer called from the event loop, at the latest when the engine ends by itself; not
    ///               after end(), and not when the engine was gone before the call
    void call(const QString &method, const QJsonObject &parameters = {},
              const QString &session = {}, const Answer &answer = {});

    /// As call(), but waits for the answer; what else comes meanwhile is passed on. Returns an
    /// empty one after a while, or when the engine is gone.
    QJsonObject callAndWait(const QString &method, std::chrono::milliseconds limit);

    /// Ends the engine. Nothing is told any more.
    void end();

signals:
    void happened(const QString &method, const QJsonObject &parameters, const QString &session);
    void ended(const QString &reason);

private:
    void take(const QByteArray &message);
    void onEnd(const QString &reason);

    EngineProcess m_process;
    QHash<int, Answer> m_answers; ///< that are waited for, by the number of their call
    int m_lastCall = 0;
};

#endif
