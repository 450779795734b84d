#include "TestFiles.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write %s", qPrintable(path));
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList filesBelow(const QString &folder)
{
    QStringList paths;
    QDirIterator walk(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                      QDirIterator::Subdirectories);
    while (walk.hasNext())
        paths += QDir(folder).relativeFilePath(walk.next());
    paths.sort();
    return paths;
}

QByteArray firstControl(const QByteArray &text, bool areTabsAllowed)
{
    const QString characters = QString::fromUtf8(text);
    for (int i = 0; i < characters.size(); ++i) {
        const ushort code = characters.at(i).unicode();
        const bool isControl =
            code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0x2028 || code == 0x2029;
        if (isControl && code != '\n' && !(areTabsAllowed && code == '\t'))
            return QByteArray::number(code, 16) + " before " + characters.mid(i, 40).toUtf8();
    }
    return {};
}

QString uniquePageUrl()
{
    return QStringLiteral("http://page.test/") + QUuid::createUuid().toString(QUuid::WithoutBraces);
}

TemporaryWorkFolder::TemporaryWorkFolder()
    : m_before(QDir::currentPath())
{
    QDir::setCurrent(m_folder.path());
}

TemporaryWorkFolder::~TemporaryWorkFolder()
{
    QDir::setCurrent(m_before);
}

QString TemporaryWorkFolder::path(const QString &relative) const
{
    const QString folder = QDir(m_folder.path()).canonicalPath();
    return relative.isEmpty() ? folder : folder + QLatin1Char('/') + relative;
}
