#ifndef SETTINGSFILE_H
#define SETTINGSFILE_H

#include <QSettings>
#include <QString>

/// The settings file "clipweir.conf" (ini form) in the user's configuration folder, or else in a
/// system-wide one, as it is at one moment.
class SettingsFile final
{
public:
    SettingsFile();

    /// A value as it stands in the file.
    [[nodiscard]] QString value(const QString &key, const QString &defaultValue) const;

private:
    const QSettings m_settings;
};

#endif
