#include "SizeProbe.h"

#include "HttpClient.h"

#include <QEventLoop>

namespace {

constexpr qint64 bufferBytes = 64 * 1024; // only the header of the answer is wanted

/// The length that an answer declares for the file. That of a redirect's own body, or of a packed
/// one, says nothing of it.
qint64 fileLengthOf(const HttpClient &client)
{
    const bool isRedirect = client.status() >= 300 && client.status() < 400;
    if (isRedirect || client.isInterim() || client.isPacked())
        return 0;
    return qMax(qint64(0), client.declaredLength());
}

} // namespace

SizeProbe::SizeProbe(const NetSettings &settings)
    : m_settings(settings)
{
}

qint64 SizeProbe::sizeOf(const QUrl &url) const
{
    HttpClient client(m_settings);
    QEventLoop loop;
    QObject::connect(&client, &HttpClient::answered, &loop, &QEventLoop::quit); // no body is needed
    QObject::connect(&client, &HttpClient::ended, &loop, &QEventLoop::quit);
    HttpClient::Request request;
    request.url = url;
    request.maxUnreadBytes = bufferBytes;
    client.start(request);
    loop.exec();
    return fileLengthOf(client);
}

qint64 SizeProbe::sizeOf(const QString &address) const
{
    return address.startsWith(QLatin1String("http")) ? sizeOf(QUrl(address)) : 0;
}
