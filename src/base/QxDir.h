#ifndef QXDIR_H
#define QXDIR_H

#include <QString>

/// Names of the user's standard folders. Naming a folder creates nothing; only MakeDir() does.
class QxDir final
{
public:
    static QString GetDocumentDir();
    static QString GetVideoDir();
    static QString GetPictureDir();
    static QString GetMusicDir();
    static QString GetAppDataDir();

    /// Makes the folder with all missing parents and returns its absolute path. A failure shows
    /// only in that the folder does not exist afterwards.
    static QString MakeDir(const QString &path);
};

/// The folder that media files are read from.
QString GetInputDir();

/// The folder "sub" below the user's video folder.
QString GetOutputDir(const QString &sub);

/// The folder "sub" below the user's picture folder.
QString GetSnapshotDir(const QString &sub);

/// The path of a database file in the user's documents folder.
QString GetDbPathName(const QString &name);

/// The folder of the user's profiles.
QString GetProfileDir();

/// The folder "sub" below the user's application data.
QString GetAppDataDir(const QString &sub);

QString GetSubtitleDir();
QString GetSoundDir();

/// The path with the base name of its file replaced; folder and last suffix stay.
QString ChangeBaseName(const QString &path, const QString &base);

/// The leading folder that two paths share, without its closing slash; empty when they share none.
QString GetCommonDir(const QString &a, const QString &b);

#endif
