#ifndef TESTFILES_H
#define TESTFILES_H

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

/// Writes a file as a whole, its folders included; ends the test program when that fails.
void writeFile(const QString &path, const QByteArray &content);

/// All bytes of a file; null when it cannot be opened.
[[nodiscard]] QByteArray readFile(const QString &path);

/// A page address that no other test and no other run of this one uses, so that its stop flag and
/// its file names are its own.
[[nodiscard]] QString uniquePageUrl();

/// While it lives the working folder is a temporary one of its own.
class TemporaryWorkFolder final
{
public:
    TemporaryWorkFolder();
    ~TemporaryWorkFolder();
    Q_DISABLE_COPY(TemporaryWorkFolder)

    /// The absolute path of a name in the folder, or of the folder itself.
    [[nodiscard]] QString path(const QString &relative = QString()) const;

private:
    QTemporaryDir m_folder;
    QString m_before;
};

#endif
