#ifndef TESTFILES_H
#define TESTFILES_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/// Writes a file as a whole, its folders included; ends the test program when that fails.
void writeFile(const QString &path, const QByteArray &content);

/// All bytes of a file; null when it cannot be opened.
[[nodiscard]] QByteArray readFile(const QString &path);

/// The paths of all files and folders below a folder, relative to it, sorted; links are not
/// followed.
[[nodiscard]] QStringList filesBelow(const QString &folder);

/// The first place where a text holds a control character or a line separator in UTF-8, with what
/// follows it; empty when it holds none but line feeds (and, if allowed, tabs).
[[nodiscard]] QByteArray firstControl(const QByteArray &text, bool areTabsAllowed = false);

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
