#include "SettingsFile.h"

#include <QStandardPaths>
#include <QStringList>

SettingsFile::SettingsFile()
    : m_settings(QStandardPaths::locate(QStandardPaths::GenericConfigLocation,
                                        QStringLiteral("clipweir.conf")),
                 QSettings::IniFormat)
{
}

QString SettingsFile::value(const QString &key, const QString &defaultValue) const
{
    const QVariant value = m_settings.value(key, defaultValue);
    // The ini form splits values at commas.
    return value.type() == QVariant::StringList ? value.toStringList().join(QLatin1String(", "))
                                                : value.toString();
}
