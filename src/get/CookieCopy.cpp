#include "CookieCopy.h"

#include <QDateTime>
#include <QFile>

namespace {

constexpr qint64 mostBytes = 16 * 1024 * 1024;
constexpr qint64 sessionS = 86400;
constexpr int fieldCount = 7;
constexpr int expiryField = 4;

} // namespace

QString CookieCopy::path() const
{
    return m_folder.filePath(QStringLiteral("cookies.txt"));
}

QByteArray CookieCopy::withSessions(const QByteArray &content, qint64 sessionEnd)
{
    QList<QByteArray> lines = content.split('\n');
    for (QByteArray &line : lines) {
        QList<QByteArray> fields = line.split('\t');
        if (fields.size() != fieldCount || fields.at(expiryField) != "0")
            continue;
        fields[expiryField] = QByteArray::number(sessionEnd);
        line = fields.join('\t');
    }
    return lines.join('\n');
}

bool CookieCopy::make(const QString &path)
{
    QFile original(path);
    if (!m_folder.isValid() || !original.open(QIODevice::ReadOnly))
        return false;
    const QByteArray content = original.read(mostBytes + 1);
    if (original.error() != QFileDevice::NoError || content.size() > mostBytes)
        return false;
    const QByteArray text = withSessions(content, QDateTime::currentSecsSinceEpoch() + sessionS);
    QFile copy(this->path());
    return copy.open(QIODevice::WriteOnly | QIODevice::NewOnly)
        && copy.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)
        && copy.write(text) == text.size() && copy.flush();
}
