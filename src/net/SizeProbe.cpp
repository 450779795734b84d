#include "SizeProbe.h"

#include "InterimAnswer.h"
#include "NetworkProxy.h"
#include "StallWatch.h"
#include "TlsTrust.h"
#include "WebAddress.h"
#include "XGzip.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <memory>

namespace {

constexpr int maxRedirects = 10;
constexpr qint64 bufferBytes = 64 * 1024; // only the header of the answer is wanted

bool isRedirect(const QNetworkReply &reply)
{
    const int status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    return status >= 300 && status < 400;
}

/// A request that fails at once when the address is not one of the web.
QNetworkRequest requestFor(const QUrl &url)
{
    QNetworkRequest request(WebAddress::isWeb(url) ? url : QUrl());
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(maxRedirects);
    return request;
}

/// Waits for the header of the answer; its body may never come.
void waitForHeader(const QNetworkReply &reply)
{
    QEventLoop loop;
    QObject::connect(&reply, &QNetworkReply::metaDataChanged, &loop, [&reply, &loop] {
        if (!isRedirect(reply))
            loop.quit();
    });
    QObject::connect(&reply, &QNetworkReply::readyRead, &loop, &QEventLoop::quit);
    QObject::connect(&reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
}

/// The length that an answer declares for the file. That of a redirect's own body, or of a packed
/// one, says nothing of it.
qint64 declaredLength(const QNetworkReply &reply)
{
    if (isRedirect(reply))
        return 0;
    InterimAnswer::report(reply);
    if (InterimAnswer::isIn(reply) || XGzip::isIn(reply))
        return 0;
    return reply.header(QNetworkRequest::ContentLengthHeader).toLongLong();
}

} // namespace

SizeProbe::SizeProbe(const NetSettings &settings)
    : m_settings(settings)
{
}

qint64 SizeProbe::sizeOf(const QUrl &url) const
{
    TlsTrust::prepare();
    QNetworkAccessManager manager;
    manager.setProxy(m_settings.proxy);
    const std::unique_ptr<QNetworkReply> reply(manager.get(requestFor(url)));
    TlsTrust::reportRefusal(reply.get());
    NetworkProxy::limitUnread(*reply, manager, bufferBytes);
    const auto *const watch = new StallWatch(reply.get(), m_settings.stallMs); // the reply's child
    QObject::connect(watch, &StallWatch::stalled, reply.get(), &QNetworkReply::abort);
    waitForHeader(*reply);
    return declaredLength(*reply);
}

qint64 SizeProbe::sizeOf(const QString &address) const
{
    return address.startsWith(QLatin1String("http")) ? sizeOf(QUrl(address)) : 0;
}
