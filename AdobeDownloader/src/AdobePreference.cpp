#include "AdobePreference.h"

#include "HdsSession.h"
#include "HostEvents.h"

namespace {

QMap<QString, QVariant> defaultOptions()
{
    const QVariantMap browserHeader{
        {QStringLiteral("Accept"),
         QStringLiteral("text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8")},
        {QStringLiteral("Connection"), QStringLiteral("Keep-Alive")},
    };
    return {
        {QStringLiteral("debug"), false},
        {QStringLiteral("duration"), 0},
        {QStringLiteral("delete"), false},
        {QStringLiteral("fileExt"), QStringLiteral(".f4f")},
        {QStringLiteral("fileCount"), 1},
        {QStringLiteral("fileSize"), 0},
        {QStringLiteral("fixWindow"), 1000},
        {QStringLiteral("fragCount"), 0},
        {QStringLiteral("fragNum"), 0},
        {QStringLiteral("manifest"), QString()},
        {QStringLiteral("metadata"), true},
        {QStringLiteral("outDir"), QStringLiteral(".")},
        {QStringLiteral("outFile"), QString()},
        {QStringLiteral("play"), false},
        {QStringLiteral("quiet"), false},
        {QStringLiteral("referrer"), QString()},
        {QStringLiteral("rename"), false},
        {QStringLiteral("showHeader"), true},
        {QStringLiteral("start"), 0},
        {QStringLiteral("auth"), QString()},
        {QStringLiteral("quality"), 0},
        {QStringLiteral("bLive"), false},
        {QStringLiteral("bTable"), false},
        {QStringLiteral("browserHeader"), browserHeader},
        {QStringLiteral("userAgent"), QString()},
        {QStringLiteral("proxyType"), 0},
        {QStringLiteral("proxyHost"), QString()},
        {QStringLiteral("proxyPort"), 0},
        {QStringLiteral("pannel"), 8}, // sic: part of the interface
        {QStringLiteral("exit"), false},
        {QStringLiteral("url"), QString()},
    };
}

bool isOptionName(const QString &argument)
{
    return argument.startsWith(QLatin1String("--"));
}

} // namespace

CAdobePreference::CAdobePreference()
    : m_options(defaultOptions())
{
}

CAdobePreference *CAdobePreference::GetInstance()
{
    return &HdsSession::ofProcess()->options;
}

QVariant CAdobePreference::GetOption(const QString &key)
{
    const std::lock_guard locker(m_mutex);
    return m_options[key];
}

bool CAdobePreference::HasOption(const QString &key) const
{
    const std::lock_guard locker(m_mutex);
    return m_options.contains(key);
}

void CAdobePreference::SetOption(const QString &key, const QVariant &value)
{
    const std::lock_guard locker(m_mutex);
    m_options[key] = value;
}

void CAdobePreference::Reset()
{
    const std::lock_guard locker(m_mutex);
    m_options = defaultOptions();
}

void CAdobePreference::parseParams(const QStringList &args)
{
    for (int i = 1; i < args.size(); ++i) {
        if (!isOptionName(args.at(i)))
            continue;
        const QString name = args.at(i).mid(2);
        const QString value = args.value(i + 1);
        if (value.isEmpty() || isOptionName(value)) {
            SetOption(name, true);
            HostEvents::send(event::StreamOptionSet{name, QStringLiteral("true")});
            continue;
        }
        ++i; // the value is used up
        if (name == QLatin1String("proxy") && setProxy(value))
            continue;
        SetOption(name, value);
        HostEvents::send(event::StreamOptionSet{name, value});
    }
}

bool CAdobePreference::setProxy(const QString &value)
{
    const QStringList parts = value.split(QLatin1Char(':'));
    if (parts.size() != 3)
        return false;
    // Parts that are no numbers become 0: a direct connection, no port.
    const int type = parts.at(0).toInt();
    const int port = parts.at(2).toInt();
    SetOption(QStringLiteral("proxyType"), type);
    SetOption(QStringLiteral("proxyHost"), parts.at(1));
    SetOption(QStringLiteral("proxyPort"), port);
    HostEvents::send(event::StreamProxySet{type, parts.at(1), port});
    return true;
}
