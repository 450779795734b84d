// Argument lists, one argument a line: as the options of the page tool and as those of a stream.
#include "AdobePreference.h"
#include "FuzzSupport.h"
#include "VideoPreference.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QHostAddress>

#include <algorithm>

namespace {

bool isKey(const QString &argument, const QString &key)
{
    const QString folded = argument.toCaseFolded();
    return folded == QLatin1Char('-') + key || folded == QLatin1String("--") + key
        || folded == QLatin1Char('/') + key;
}

/// The value of an option by the plain rule: what follows its first occurrence.
QString valueOf(const QStringList &arguments, const QString &key)
{
    for (int i = 0; i < arguments.size(); ++i) {
        if (isKey(arguments.at(i), key))
            return arguments.value(i + 1);
    }
    return {};
}

int numberOf(const QStringList &arguments, const char *key, int fallback)
{
    bool isNumber = false;
    const int number = valueOf(arguments, QLatin1String(key)).toInt(&isNumber);
    return isNumber ? number : fallback;
}

bool hasFlag(const QStringList &arguments, const char *key)
{
    return std::any_of(arguments.cbegin(), arguments.cend(), [key](const QString &argument) {
        return isKey(argument, QLatin1String(key));
    });
}

void checkProxy(const QStringList &arguments)
{
    const ProxySetting setting = CVideoPreference::instance()->GetProxy();
    FUZZ_CHECK(setting.host.isEmpty() || !QHostAddress(setting.host).isNull());
    const QNetworkProxy proxy = setting.toNetworkProxy();
    const bool isDirect = setting.host.isEmpty() || setting.type == QNetworkProxy::NoProxy
        || setting.type == QNetworkProxy::DefaultProxy;
    FUZZ_CHECK((proxy.type() == QNetworkProxy::NoProxy) == isDirect);
    if (!isDirect) {
        FUZZ_CHECK(proxy.hostName() == setting.host);
        FUZZ_CHECK(proxy.port() == setting.port || proxy.port() == 0);
    }
    if (valueOf(arguments, QStringLiteral("proxy")).isEmpty())
        FUZZ_CHECK(setting.type == QNetworkProxy::NoProxy && setting.port == 0);
}

void checkPaths(const QString &savePath)
{
    const auto *const preference = CVideoPreference::instance();
    const QString md5 = preference->GetPageUrlMD5();
    FUZZ_CHECK(md5.size() == 32 && std::all_of(md5.cbegin(), md5.cend(), [](QChar c) {
                   return (c >= QLatin1Char('0') && c <= QLatin1Char('9'))
                       || (c >= QLatin1Char('A') && c <= QLatin1Char('F'));
               }));
    if (savePath.isEmpty())
        return; // the folder of the default would be made
    const QString folder = preference->GetOutDir();
    FUZZ_CHECK(QFileInfo(folder).isAbsolute());
    FUZZ_CHECK(preference->GetVideoFullPath() == savePath);
    FUZZ_CHECK(preference->GetThumbFullPath()
               == folder + QLatin1Char('/') + md5 + QLatin1String(".thumb"));
}

void checkPageOptions(const QStringList &given)
{
    fuzz::setArguments(given);
    const QStringList arguments = QCoreApplication::arguments();
    const auto *const preference = CVideoPreference::instance();
    const QString savePath = valueOf(arguments, QStringLiteral("saveto"));
    FUZZ_CHECK(preference->GetPageUrl() == valueOf(arguments, QStringLiteral("url")));
    FUZZ_CHECK(preference->GetTimeOut() == numberOf(arguments, "timeout", 120));
    FUZZ_CHECK(preference->GetVideoFormat() == numberOf(arguments, "format", 0));
    FUZZ_CHECK(preference->GetQuality() == numberOf(arguments, "quality", 0));
    FUZZ_CHECK(preference->GetTotalSize()
               == valueOf(arguments, QStringLiteral("size")).toLongLong());
    FUZZ_CHECK(preference->GetResume() == !hasFlag(arguments, "noresume"));
    FUZZ_CHECK(preference->GetLog() == hasFlag(arguments, "log"));
    FUZZ_CHECK(preference->GetSupportF4f() == hasFlag(arguments, "f4f"));
    FUZZ_CHECK(preference->GetStreams() == hasFlag(arguments, "streams"));
    FUZZ_CHECK(preference->GetConnections() >= 1 && preference->GetConnections() <= 32);
    FUZZ_CHECK(preference->GetSmartName()
               == (savePath.isEmpty() && hasFlag(arguments, "smartname")));
    checkProxy(arguments);
    checkPaths(savePath);
}

/// Every host line says what was stored; the last one of a name counts.
void checkStreamOptions(const QStringList &arguments)
{
    auto *const preference = CAdobePreference::GetInstance();
    preference->Reset();
    preference->parseParams(arguments);
    const QStringList lines = fuzz::takeLines();
    FUZZ_CHECK(lines.size() <= arguments.size());
    for (const QString &line : lines)
        FUZZ_CHECK(line.startsWith(QLatin1String("\"setOption: "))
                   && line.endsWith(QLatin1String("\" ")));

    int options = 0;
    for (int i = 1; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (!argument.startsWith(QLatin1String("--")))
            continue;
        ++options;
        const QVariant value = preference->GetOption(argument.mid(2));
        const bool isProxy = argument == QLatin1String("--proxy");
        const bool isText = value.userType() == QMetaType::QString;
        FUZZ_CHECK(isProxy || isText || value == QVariant(true));
        if (isText && !isProxy)
            FUZZ_CHECK(value.toString().isEmpty() || arguments.contains(value.toString()));
    }
    FUZZ_CHECK(lines.size() == options);
    const QVariant port = preference->GetOption(QStringLiteral("proxyPort"));
    FUZZ_CHECK(port.userType() == QMetaType::Int
               || arguments.contains(QStringLiteral("--proxyPort")));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    const QStringList arguments = fuzz::text(fuzz::bytes(data, size)).split(QLatin1Char('\n'));
    checkPageOptions(arguments);
    checkStreamOptions(arguments);
    return 0;
}
