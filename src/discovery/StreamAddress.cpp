#include "StreamAddress.h"

#include "PageText.h"
#include "utils.h"

namespace {

const QLatin1String fragmentPattern("([s|S]eg[0-9]{1,20}-[F|f]rag[0-9]{1,20})");

} // namespace

bool StreamAddress::isOne(const QString &url)
{
    return PageText::isStreamAddress(url);
}

QString StreamAddress::manifestOf(const QString &url)
{
    const QString fragment = Utils::RegexString(url, fragmentPattern);
    if (fragment.isEmpty() || url.indexOf(fragment) <= 0)
        return url;
    return QString(url).replace(fragment, QLatin1String("mainfest.f4m")); // sic: sites expect it
}
