#include "OutputPaths.h"

#include "QxDir.h"

#include <QDir>
#include <QFileInfo>

OutputPaths::OutputPaths(const QString &saveTo, const QString &name, const QString &extension)
    : m_saveTo(saveTo)
    , m_name(name)
    , m_extension(extension)
{
}

QString OutputPaths::defaultFolder()
{
    const QString folder = QxDir::MakeDir(QStringLiteral("tmp"));
    if (QDir(folder).exists())
        return folder;
    return QxDir::MakeDir(QxDir::GetDocumentDir() + QLatin1String("/reelsnare"));
}

QString OutputPaths::folder() const
{
    return m_saveTo.isEmpty() ? defaultFolder() : QFileInfo(m_saveTo).absoluteDir().absolutePath();
}

QString OutputPaths::video() const
{
    if (!m_saveTo.isEmpty())
        return m_saveTo;
    return folder() + QStringLiteral("/%1.%2").arg(m_name, m_extension);
}

QString OutputPaths::thumb() const
{
    return folder() + QStringLiteral("/%1.thumb").arg(m_name);
}
