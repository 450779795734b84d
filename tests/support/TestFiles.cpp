#include "TestFiles.h"

#include <QDir>
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
