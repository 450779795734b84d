#include "QxDir.h"

#include <QDir>
#include <QFileInfo>

namespace {

QString inHome(const char *sub)
{
    return QDir::homePath() + QLatin1String(sub);
}

QString below(const QString &folder, const QString &sub)
{
    return folder + QLatin1Char('/') + sub;
}

QString firstNonEmpty(const QString &a, const QString &b)
{
    return a.isEmpty() ? b : a;
}

} // namespace

QString QxDir::GetDocumentDir()
{
    return inHome("/Documents");
}

QString QxDir::GetVideoDir()
{
    return inHome("/Movies");
}

QString QxDir::GetPictureDir()
{
    return inHome("/Pictures");
}

QString QxDir::GetMusicDir()
{
    return inHome("/Music");
}

QString QxDir::GetAppDataDir()
{
    return inHome("/Library/Application Support");
}

QString QxDir::MakeDir(const QString &path)
{
    const QString absolutePath = QDir(path).absolutePath();
    if (!QDir(absolutePath).exists())
        QDir().mkpath(absolutePath);
    return absolutePath;
}

QString GetInputDir()
{
    return firstNonEmpty(QxDir::GetVideoDir(),
                         firstNonEmpty(QxDir::GetDocumentDir(), QDir::homePath()));
}

QString GetOutputDir(const QString &sub)
{
    return below(firstNonEmpty(QxDir::GetVideoDir(), QDir::homePath()), sub);
}

QString GetSnapshotDir(const QString &sub)
{
    return below(QxDir::GetPictureDir(), sub);
}

QString GetDbPathName(const QString &name)
{
    return below(QxDir::GetDocumentDir(), name);
}

QString GetProfileDir()
{
    return below(QxDir::GetAppDataDir(), QStringLiteral("Profiles"));
}

QString GetAppDataDir(const QString &sub)
{
    return below(firstNonEmpty(QxDir::GetAppDataDir(), QDir::homePath()), sub);
}

QString GetSubtitleDir()
{
    return firstNonEmpty(QxDir::GetMusicDir(),
                         firstNonEmpty(QxDir::GetDocumentDir(), QDir::homePath()));
}

QString GetSoundDir()
{
    return GetSubtitleDir();
}

QString ChangeBaseName(const QString &path, const QString &base)
{
    const QFileInfo info(path);
    return below(info.path(), base + QLatin1Char('.') + info.suffix());
}

QString GetCommonDir(const QString &a, const QString &b)
{
    if (a == b)
        return a;
    int common = 0;
    for (int from = 0;;) {
        const int slashA = a.indexOf(QLatin1Char('/'), from);
        const int slashB = b.indexOf(QLatin1Char('/'), from);
        if (slashA < 0 || slashA != slashB
            || a.midRef(from, slashA - from) != b.midRef(from, slashB - from))
            return a.left(common);
        common = slashA;
        from = slashA + 1;
    }
}
