#include "InterimAnswer.h"

#include <QNetworkReply>

namespace {

constexpr int firstStatus = 100;
constexpr int lastStatus = 199;

int statusOf(const QNetworkReply &reply)
{
    return reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

} // namespace

bool InterimAnswer::isIn(const QNetworkReply &reply)
{
    const int status = statusOf(reply);
    return status >= firstStatus && status <= lastStatus;
}

QString InterimAnswer::errorText()
{
    return QStringLiteral("The answer behind an interim one is not read");
}

void InterimAnswer::report(const QNetworkReply &reply)
{
    if (isIn(reply))
        qWarning("%s: %s (status %d)", qUtf8Printable(reply.url().toString()),
                 qUtf8Printable(errorText()), statusOf(reply));
}
