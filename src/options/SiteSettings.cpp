#include "SiteSettings.h"

#include <QSettings>
#include <QStandardPaths>
#include <QStringList>

namespace {

const QLatin1String defaultHuluPagePattern(R"(https?://(?:www\.)?hulu\.com/[^/]+/([0-9]+))");

/// A value as it stands in the file: the ini form splits values at commas.
QString textOf(const QSettings &settings, const QString &key, const QString &defaultValue)
{
    const QVariant value = settings.value(key, defaultValue);
    return value.type() == QVariant::StringList ? value.toStringList().join(QLatin1String(", "))
                                                : value.toString();
}

} // namespace

SiteSettings SiteSettings::load()
{
    const QString path = QStandardPaths::locate(QStandardPaths::GenericConfigLocation,
                                                QStringLiteral("clipweir.conf"));
    const QSettings settings(path, QSettings::IniFormat);
    return {textOf(settings, QStringLiteral("hulu/pagePattern"), defaultHuluPagePattern),
            textOf(settings, QStringLiteral("hulu/selectionEndpoint"), QString())};
}
