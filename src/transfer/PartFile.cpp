#include "PartFile.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>

#include <cstdio>

namespace {

constexpr qint64 noteIntervalMs = 250;
constexpr qint64 maxJournalBytes = 64 * 1024;
constexpr qint64 chunkBytes = 1 << 20;
constexpr int journalVersion = 1;

QByteArray readJournal(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(maxJournalBytes) : QByteArray();
}

/// Puts a file in the place of another, at once: nobody sees half of it.
bool replace(const QString &from, const QString &to)
{
    return std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
}

} // namespace

PartFile::PartFile(const QString &path, bool keepsJournal)
    : m_path(path)
    , m_partPath(path + QLatin1String(".part"))
    , m_keepsJournal(keepsJournal)
{
}

PartFile::~PartFile()
{
    noteInJournal();
}

QString PartFile::journalPath() const
{
    return m_partPath + QLatin1String(".json");
}

bool PartFile::open()
{
    m_isTaken = OutputFile::isBeingWritten(m_path);
    if (m_isTaken) {
        qWarning("%s cannot be written: another run is writing it", qUtf8Printable(m_path));
        return false;
    }
    if (m_file.open(m_partPath, OutputFile::Mode::Update) && QFileInfo(m_partPath).isFile())
        return true;
    m_isTaken = m_file.isTaken();
    qWarning("%s cannot be written: %s", qUtf8Printable(m_partPath),
             qUtf8Printable(m_file.errorString()));
    m_file.close();
    return false;
}

bool PartFile::takeUp()
{
    const QJsonObject journal = QJsonDocument::fromJson(readJournal(journalPath())).object();
    if (journal.value(QStringLiteral("version")).toInt() != journalVersion)
        return false;
    const FileOrigin origin = FileOrigin::fromJson(journal);
    const double bytes = journal.value(QStringLiteral("bytes")).toDouble();
    const QByteArray sum =
        QByteArray::fromHex(journal.value(QStringLiteral("sha256")).toString().toLatin1());
    if (!origin.isProvable() || !(bytes > 0) || bytes > static_cast<double>(origin.length)
        || !holds(static_cast<qint64>(bytes), sum))
        return false;
    m_origin = origin;
    m_sinceNote.start();
    return true;
}

/// Whether the part begins with so many bytes of that sum. If so it is cut to them.
bool PartFile::holds(qint64 bytes, const QByteArray &sum)
{
    m_hash.reset();
    if (m_file.size() < bytes || !m_file.seek(0))
        return false;
    while (m_hash.bytes() < bytes) {
        const QByteArray chunk = m_file.read(qMin(chunkBytes, bytes - m_hash.bytes()));
        if (chunk.isEmpty())
            return false;
        m_hash.add(chunk.constData(), chunk.size());
    }
    return !sum.isEmpty() && m_hash.sum() == sum && m_file.resize(bytes) && m_file.seek(bytes);
}

bool PartFile::begin(const FileOrigin &origin)
{
    m_origin = origin;
    m_hash.reset();
    QFile::remove(journalPath()); // it tells of bytes that are about to go
    const bool isEmpty = m_file.resize(0) && m_file.seek(0);
    noteInJournal();
    return isEmpty;
}

bool PartFile::write(const char *data, qint64 bytes)
{
    if (!m_file.write(data, bytes)) {
        qWarning("%s cannot be written: %s", qUtf8Printable(m_partPath),
                 qUtf8Printable(m_file.errorString()));
        return false;
    }
    m_hash.add(data, bytes);
    if (m_sinceNote.hasExpired(noteIntervalMs))
        noteInJournal();
    return true;
}

QByteArray PartFile::last(qint64 bytes)
{
    const qint64 end = m_hash.bytes();
    const QByteArray content = m_file.seek(end - bytes) ? m_file.read(bytes) : QByteArray();
    return m_file.seek(end) ? content : QByteArray();
}

void PartFile::noteInJournal()
{
    m_sinceNote.start();
    if (!m_keepsJournal || !m_file.isOpen() || !m_origin.isProvable())
        return;
    QJsonObject journal = m_origin.toJson();
    journal.insert(QStringLiteral("version"), journalVersion);
    journal.insert(QStringLiteral("bytes"), m_hash.bytes());
    journal.insert(QStringLiteral("sha256"), QString::fromLatin1(m_hash.sum().toHex()));
    const QByteArray text = QJsonDocument(journal).toJson();
    const QString newPath = journalPath() + QLatin1String(".new");
    QFile file(newPath);
    const bool isWritten =
        file.open(QIODevice::WriteOnly) && file.write(text) == text.size() && file.flush();
    file.close();
    if (!isWritten || !replace(newPath, journalPath())) {
        QFile::remove(newPath);
        qWarning("%s cannot be written: a later run begins again", qUtf8Printable(journalPath()));
    }
}

bool PartFile::finish()
{
    // Somebody may have removed or replaced the part while it was being written.
    if (!OutputFile::isInPlace(m_partPath, m_hash.bytes()))
        return false;
    m_isTaken = OutputFile::isBeingWritten(m_path);
    if (m_isTaken || !replace(m_partPath, m_path))
        return false;
    m_file.close();
    QFile::remove(journalPath());
    return true;
}
