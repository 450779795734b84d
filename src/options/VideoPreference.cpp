#include "VideoPreference.h"

#include "NetworkProxy.h"
#include "QxDir.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDate>
#include <QHostAddress>
#include <QStringList>

namespace {

constexpr int defaultTimeoutS = 120;
constexpr int defaultMemoryMiB = 2048;
constexpr qint64 bytesPerMiB = 1 << 20;

QString saveTo()
{
    return CVideoPreference::instance()->GetOptionString(QStringLiteral("saveto"), QString());
}

QString logFolder()
{
    return QxDir::MakeDir(CVideoPreference::instance()->GetOutDir() + QLatin1String("/logs"));
}

/// The number of "connections"; the given one when there is none that makes sense.
int connectionsOr(int usual)
{
    constexpr int most = 32;
    const int connections =
        CVideoPreference::instance()->GetOptionValue(QStringLiteral("connections"), usual);
    return connections >= 1 && connections <= most ? connections : usual;
}

} // namespace

QNetworkProxy ProxySetting::toNetworkProxy() const
{
    return NetworkProxy::fromSetting(type, host, port);
}

CVideoPreference *CVideoPreference::instance()
{
    static CVideoPreference preference;
    return &preference;
}

bool CVideoPreference::isSameOptionKey(const QString &arg, const QString &key) const
{
    for (const QLatin1String prefix :
         {QLatin1String("-"), QLatin1String("--"), QLatin1String("/")}) {
        if (arg.compare(prefix + key, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

bool CVideoPreference::GetOptionState(const QString &key) const
{
    const QStringList arguments = QCoreApplication::arguments();
    for (const QString &argument : arguments) {
        if (isSameOptionKey(argument, key))
            return true;
    }
    return false;
}

QString CVideoPreference::GetOptionString(const QString &key, const QString &defaultValue) const
{
    const QStringList arguments = QCoreApplication::arguments();
    for (int i = 0; i < arguments.size(); ++i) {
        if (!isSameOptionKey(arguments.at(i), key))
            continue;
        const QString value = arguments.value(i + 1);
        return value.isEmpty() ? defaultValue : value;
    }
    return defaultValue;
}

int CVideoPreference::GetOptionValue(const QString &key, int defaultValue) const
{
    bool isNumber = false;
    const int value = GetOptionString(key, QString::number(defaultValue)).toInt(&isNumber);
    return isNumber ? value : defaultValue;
}

QString CVideoPreference::GetPageUrl() const
{
    return GetOptionString(QStringLiteral("url"), QString());
}

int CVideoPreference::GetTimeOut() const
{
    return GetOptionValue(QStringLiteral("timeout"), defaultTimeoutS);
}

int CVideoPreference::GetStall() const
{
    return qMax(0, GetOptionValue(QStringLiteral("stall"), 0));
}

int CVideoPreference::GetDeadline() const
{
    return qMax(0, GetOptionValue(QStringLiteral("deadline"), 0));
}

qint64 CVideoPreference::GetMemoryLimit() const
{
    return qMax(0, GetOptionValue(QStringLiteral("memory"), defaultMemoryMiB)) * bytesPerMiB;
}

int CVideoPreference::GetVideoFormat() const
{
    return GetOptionValue(QStringLiteral("format"), AnyFormat);
}

int CVideoPreference::GetQuality() const
{
    return GetOptionValue(QStringLiteral("quality"), 0);
}

qint64 CVideoPreference::GetTotalSize() const
{
    return GetOptionString(QStringLiteral("size"), QStringLiteral("0")).toLongLong();
}

ProxySetting CVideoPreference::GetProxy() const
{
    ProxySetting setting;
    const QStringList parts =
        GetOptionString(QStringLiteral("proxy"), QString()).split(QLatin1Char(':'));

    bool isNumber = false;
    const int type = parts.value(0).toInt(&isNumber);
    if (isNumber)
        setting.type = type;
    if (!QHostAddress(parts.value(1)).isNull())
        setting.host = parts.value(1);
    const int port = parts.value(2).toInt(&isNumber);
    if (isNumber)
        setting.port = port;
    return setting;
}

bool CVideoPreference::GetThumb() const
{
    return GetOptionState(QStringLiteral("thumb"));
}

bool CVideoPreference::GetPartialDown() const
{
    return GetOptionState(QStringLiteral("partial"));
}

bool CVideoPreference::GetSmartName() const
{
    return saveTo().isEmpty() && GetOptionState(QStringLiteral("smartname"));
}

bool CVideoPreference::GetResume() const
{
    return !GetOptionState(QStringLiteral("noresume"));
}

bool CVideoPreference::GetKeepImage() const
{
    return GetOptionState(QStringLiteral("keepimage"));
}

bool CVideoPreference::GetLog() const
{
    return GetOptionState(QStringLiteral("log"));
}

bool CVideoPreference::GetShow() const
{
    return GetOptionState(QStringLiteral("show"));
}

bool CVideoPreference::GetInfoFlag() const
{
    return GetOptionState(QStringLiteral("info"));
}

bool CVideoPreference::GetExitFlag() const
{
    return GetOptionState(QStringLiteral("exit"));
}

bool CVideoPreference::GetSupportF4f() const
{
    return GetOptionState(QStringLiteral("f4f"));
}

bool CVideoPreference::GetStreams() const
{
    return GetOptionState(QStringLiteral("streams"));
}

QString CVideoPreference::GetLanguage() const
{
    return GetOptionString(QStringLiteral("language"), QString());
}

int CVideoPreference::GetConnections() const
{
    constexpr int usual = 8;
    return connectionsOr(usual);
}

int CVideoPreference::GetFileConnections() const
{
    return connectionsOr(1);
}

bool CVideoPreference::GetParent() const
{
    return GetOptionState(QStringLiteral("parent"));
}

bool CVideoPreference::GetNoSandbox() const
{
    return GetOptionState(QStringLiteral("nosandbox"));
}

bool CVideoPreference::GetNoClick() const
{
    return GetOptionState(QStringLiteral("no-click"));
}

CVideoPreference::Engine CVideoPreference::GetEngine() const
{
    const QString name = GetOptionString(QStringLiteral("engine"), QString());
    if (name.compare(QLatin1String("chromium"), Qt::CaseInsensitive) == 0)
        return Engine::Chromium;
    if (name.compare(QLatin1String("auto"), Qt::CaseInsensitive) == 0)
        return Engine::Auto;
#ifdef CLIPWEIR_WEBKIT
    return Engine::Webkit;
#else
    return Engine::Chromium;
#endif
}

bool CVideoPreference::GetEvents() const
{
    return GetOptionState(QStringLiteral("events"));
}

bool CVideoPreference::GetStrict() const
{
    return GetOptionState(QStringLiteral("strict"));
}

bool CVideoPreference::GetContinue() const
{
    return GetOptionState(QStringLiteral("continue"));
}

int CVideoPreference::GetRetries() const
{
    return qMax(0, GetOptionValue(QStringLiteral("retries"), 0));
}

bool CVideoPreference::GetEager() const
{
    return GetOptionState(QStringLiteral("eager"));
}

QString CVideoPreference::GetPageUrlMD5() const
{
    const QByteArray digest =
        QCryptographicHash::hash(GetPageUrl().toUtf8(), QCryptographicHash::Md5);
    return QString::fromLatin1(digest.toHex()).toUpper();
}

OutputPaths CVideoPreference::GetOutputPaths() const
{
    const QString extension = GetSupportF4f() ? QStringLiteral("flv") : QStringLiteral("mp4");
    return {saveTo(), GetPageUrlMD5(), extension};
}

QString CVideoPreference::GetDefaultOutDir() const
{
    return OutputPaths::defaultFolder();
}

QString CVideoPreference::GetOutDir() const
{
    return GetOutputPaths().folder();
}

QString CVideoPreference::GetVideoFullPath() const
{
    return GetOutputPaths().video();
}

QString CVideoPreference::GetThumbFullPath() const
{
    return GetOutputPaths().thumb();
}

QString CVideoPreference::GetLogFullPath(const QString &ext) const
{
    return logFolder() + QLatin1Char('/') + GetPageUrlMD5() + QLatin1Char('.') + ext;
}

QString CVideoPreference::GetCsvFullPath(const QString &ext) const
{
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"));
    return logFolder() + QLatin1Char('/') + today + QLatin1Char('.') + ext;
}
