#include "SynchronousRequest.h"

#include "CookieJar.h"
#include "ShareMemoryManager.h"
#include "StallWatch.h"
#include "TlsTrust.h"
#include "WebAddress.h"

#include <QBuffer>
#include <QEventLoop>
#include <QNetworkReply>
#include <QThread>
#include <QTimer>

#include <cstring>

namespace {

constexpr int stopIntervalMs = 100;
constexpr qint64 maxBodyBytes = 256 * 1024 * 1024;
constexpr int lastCopiedAttribute = 7; // QNetworkRequest::DoNotBufferUploadDataAttribute

/// What became of a request; carried from its thread to the engine's.
struct Outcome
{
    QList<QNetworkReply::RawHeaderPair> headers;
    QVariantList attributes; ///< by their number
    QByteArray body;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QString errorText;
};

/// A reply that has already ended.
class EndedReply final : public QNetworkReply
{
public:
    EndedReply(QNetworkAccessManager::Operation operation, const QNetworkRequest &request,
               const Outcome &outcome)
        : m_body(outcome.body)
    {
        setOperation(operation);
        setRequest(request);
        setUrl(request.url());
        for (const auto &header : outcome.headers)
            setRawHeader(header.first, header.second);
        for (int i = 0; i < outcome.attributes.size(); ++i)
            setAttribute(static_cast<QNetworkRequest::Attribute>(i), outcome.attributes.at(i));
        if (outcome.error != NoError)
            setError(outcome.error, outcome.errorText);
        open(ReadOnly);
        setFinished(true);
    }

    void abort() override { } // there is nothing left to end

    qint64 bytesAvailable() const override
    {
        return m_body.size() - m_pos + QNetworkReply::bytesAvailable();
    }

    bool isSequential() const override { return true; }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        const qint64 count = qMin<qint64>(maxSize, m_body.size() - m_pos);
        if (count <= 0)
            return -1;
        std::memcpy(data, m_body.constData() + m_pos, static_cast<size_t>(count));
        m_pos += static_cast<int>(count);
        return count;
    }

private:
    QByteArray m_body;
    int m_pos = 0;
};

QNetworkReply *send(QNetworkAccessManager &manager, QNetworkAccessManager::Operation operation,
                    QNetworkRequest request, QIODevice &body)
{
    request.setAttribute(QNetworkRequest::SynchronousRequestAttribute, false);
    switch (operation) {
    case QNetworkAccessManager::HeadOperation:
        return manager.head(request);
    case QNetworkAccessManager::PutOperation:
        return manager.put(request, &body);
    case QNetworkAccessManager::PostOperation:
        return manager.post(request, &body);
    case QNetworkAccessManager::DeleteOperation:
        return manager.deleteResource(request);
    case QNetworkAccessManager::CustomOperation:
        return manager.sendCustomRequest(
            request, request.attribute(QNetworkRequest::CustomVerbAttribute).toByteArray(), &body);
    default:
        return manager.get(request);
    }
}

/// Collects the body until the reply ends; gives up when there is too much of it, when the server
/// falls silent and when the run is to end.
Outcome collect(QNetworkReply &reply, qint64 stallMs)
{
    Outcome outcome;
    QEventLoop loop;
    bool isStalled = false;
    TlsTrust::reportRefusal(&reply);
    const StallWatch watch(&reply, stallMs);
    QObject::connect(&watch, &StallWatch::stalled, &loop, [&] {
        isStalled = true;
        reply.abort();
    });
    QTimer stopTimer;
    QObject::connect(&stopTimer, &QTimer::timeout, &loop, [&] {
        if (ShareMemoryManager::GetInstance()->GetExitFlag())
            reply.abort();
    });
    stopTimer.start(stopIntervalMs);
    QObject::connect(&reply, &QNetworkReply::readyRead, &loop, [&] {
        if (outcome.body.size() + reply.bytesAvailable() > maxBodyBytes)
            reply.abort();
        else
            outcome.body += reply.readAll();
    });
    QObject::connect(&reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply.isFinished())
        loop.exec();

    if (reply.isOpen())
        outcome.body += reply.readAll();
    outcome.headers = reply.rawHeaderPairs();
    for (int i = 0; i <= lastCopiedAttribute; ++i)
        outcome.attributes += reply.attribute(static_cast<QNetworkRequest::Attribute>(i));
    outcome.error = isStalled ? QNetworkReply::TimeoutError : reply.error();
    outcome.errorText = isStalled ? StallWatch::errorText() : reply.errorString();
    return outcome;
}

} // namespace

bool SynchronousRequest::isOne(const QNetworkRequest &request)
{
    return request.attribute(QNetworkRequest::SynchronousRequestAttribute).toBool()
        && WebAddress::isWeb(request.url());
}

std::unique_ptr<QNetworkReply> SynchronousRequest::run(QNetworkAccessManager::Operation operation,
                                                       const QNetworkRequest &request,
                                                       QIODevice *outgoingData,
                                                       const QNetworkProxy &proxy, qint64 stallMs)
{
    const QByteArray body = outgoingData ? outgoingData->readAll() : QByteArray();
    Outcome outcome;
    const std::unique_ptr<QThread> thread(QThread::create([&] {
        QNetworkAccessManager manager;
        manager.setProxy(proxy);
        manager.setCookieJar(new CookieJar(&manager));
        QBuffer device;
        device.setData(body);
        device.open(QIODevice::ReadOnly);
        const std::unique_ptr<QNetworkReply> reply(send(manager, operation, request, device));
        outcome = collect(*reply, stallMs);
    }));
    thread->start();
    thread->wait();
    return std::make_unique<EndedReply>(operation, request, outcome);
}
