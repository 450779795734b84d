#ifndef SYNCHRONOUSREQUEST_H
#define SYNCHRONOUSREQUEST_H

#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkRequest>

#include <memory>

/// A request that the engine makes from inside a script and waits for without an event loop, so
/// that nothing on its thread can end it. It is made on a thread of its own instead, which ends it
/// when the server falls silent and when the host wants the run to end.
class SynchronousRequest final
{
public:
    SynchronousRequest() = delete;

    /// Whether a request is one of these.
    [[nodiscard]] static bool isOne(const QNetworkRequest &request);

    /// Makes the request and waits for its end. The reply is finished and holds the whole body; a
    /// body beyond a bound of its own is an error.
    /// @param outgoingData the body to send, or null    @param stallMs the limit for silence
    [[nodiscard]] static std::unique_ptr<QNetworkReply>
    run(QNetworkAccessManager::Operation operation, const QNetworkRequest &request,
        QIODevice *outgoingData, const QNetworkProxy &proxy, qint64 stallMs);
};

#endif
