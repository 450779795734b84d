#include "PartFile.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
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

/// A number of bytes that a journal tells; -1 for anything else.
qint64 bytesOf(const QJsonValue &value)
{
    constexpr double maxExact = 9007199254740992.0; // 2^53
    const double number = value.toDouble(-1);
    return number >= 0 && number <= maxExact ? static_cast<qint64>(number) : -1;
}

QByteArray sumOf(const QJsonValue &value)
{
    return QByteArray::fromHex(value.toString().toLatin1());
}

QString textOf(const QByteArray &sum)
{
    return QString::fromLatin1(sum.toHex());
}

QByteArray sumOfBytes(const QByteArray &bytes)
{
    ContentHash hash;
    hash.add(bytes.constData(), bytes.size());
    return hash.sum();
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

/// Adds bytes that are on the disk to a sum. Returns false when they are not there.
template <typename Hash> bool PartFile::readInto(Hash &hash, qint64 position, qint64 bytes)
{
    if (!m_file.seek(position))
        return false;
    while (bytes > 0) {
        const QByteArray chunk = m_file.read(qMin(chunkBytes, bytes));
        if (chunk.isEmpty())
            return false;
        hash.add(chunk.constData(), chunk.size());
        bytes -= chunk.size();
    }
    return true;
}

bool PartFile::takeUp()
{
    const QJsonObject journal = QJsonDocument::fromJson(readJournal(journalPath())).object();
    if (journal.value(QStringLiteral("version")).toInt() != journalVersion)
        return false;
    const FileOrigin origin = FileOrigin::fromJson(journal);
    const qint64 bytes = bytesOf(journal.value(QStringLiteral("bytes")));
    const QByteArray sum = sumOf(journal.value(QStringLiteral("sha256")));
    m_hash.reset();
    m_ahead.clear();
    if (!origin.isProvable() || bytes <= 0 || bytes > origin.length || sum.isEmpty()
        || !readInto(m_hash, 0, bytes) || m_hash.sum() != sum)
        return false;
    m_origin = origin;
    takeUpAhead(journal.value(QStringLiteral("ahead")).toArray());
    qint64 end = bytes;
    eachRun([&end](qint64, qint64 runEnd) { end = qMax(end, runEnd); });
    m_sinceNote.start();
    return m_file.resize(end);
}

/// Takes up those runs that are as they were.
void PartFile::takeUpAhead(const QJsonArray &runs)
{
    qint64 taken = 0; // the runs are in order
    for (int i = 0; i < runs.size() && i < mostRuns; ++i) {
        const QJsonObject object = runs.at(i).toObject();
        const qint64 first = bytesOf(object.value(QStringLiteral("first")));
        const qint64 bytes = bytesOf(object.value(QStringLiteral("bytes")));
        const QByteArray leadSum = sumOf(object.value(QStringLiteral("leadSha256")));
        const bool isInPlace = first >= taken && bytes > 0 && bytes <= m_origin.length
            && first <= m_origin.length - bytes && first + bytes > m_hash.bytes();
        if (!isInPlace || (first >= m_hash.bytes() && leadSum.isEmpty()))
            continue;
        Run &run = m_ahead[first];
        run.leadSum = leadSum;
        run.bytes = bytes;
        if (!readInto(run.hash, first, bytes)
            || run.hash.sum() != sumOf(object.value(QStringLiteral("sha256"))))
            m_ahead.erase(first);
        else
            taken = first + bytes;
    }
}

bool PartFile::begin(const FileOrigin &origin)
{
    m_origin = origin;
    m_hash.reset();
    m_ahead.clear();
    QFile::remove(journalPath()); // it tells of bytes that are about to go
    const bool isEmpty = m_file.resize(0) && m_file.seek(0);
    noteInJournal();
    return isEmpty;
}

bool PartFile::beginAt(qint64 position, const QByteArray &lead)
{
    const qint64 front = m_hash.bytes();
    if (position > front) {
        Run *const run = runThatEndsAt(position);
        if (!run || run->bytes == 0) { // what is before it is not there yet
            if (!run && !isFree(position, 0))
                return false;
            m_ahead[position].leadSum = sumOfBytes(lead);
            return true;
        }
        const qint64 known = qMin<qint64>(run->bytes, lead.size());
        return bytesBefore(position, known) == lead.right(static_cast<int>(known));
    }
    return position == front && bytesBefore(position, lead.size()) == lead;
}

bool PartFile::writeAt(qint64 position, const char *data, qint64 bytes)
{
    Run *const run = runThatEndsAt(position);
    const bool isFront = !run && position == m_hash.bytes();
    if ((!isFront && !run) || !isFree(position, bytes)) {
        qWarning("%s has something already from byte %lld on", qUtf8Printable(m_partPath),
                 static_cast<long long>(position));
        return false;
    }
    if ((m_file.pos() != position && !m_file.seek(position)) || !m_file.write(data, bytes)) {
        qWarning("%s cannot be written: %s", qUtf8Printable(m_partPath),
                 qUtf8Printable(m_file.errorString()));
        return false;
    }
    if (run)
        run->bytes += bytes;
    if (isFront)
        m_hash.add(data, bytes);
    else if (m_keepsJournal)
        run->hash.add(data, bytes);
    if (m_sinceNote.hasExpired(noteIntervalMs))
        noteInJournal();
    return true;
}

/// The run that has its end there; null for none.
PartFile::Run *PartFile::runThatEndsAt(qint64 position)
{
    const auto next = m_ahead.upper_bound(position);
    if (next == m_ahead.begin())
        return nullptr;
    auto &[first, run] = *std::prev(next);
    return first + run.bytes == position ? &run : nullptr;
}

/// Whether nothing is there of so many bytes.
bool PartFile::isFree(qint64 position, qint64 bytes) const
{
    if (position < m_hash.bytes())
        return false;
    const auto next = m_ahead.upper_bound(position);
    if (next != m_ahead.end() && next->first - position < bytes)
        return false;
    return next == m_ahead.begin()
        || std::prev(next)->first + std::prev(next)->second.bytes <= position;
}

bool PartFile::canJoin() const
{
    return !m_ahead.empty() && m_ahead.begin()->first <= m_hash.bytes();
}

PartFile::Joined PartFile::join(qint64 maxBytes)
{
    while (canJoin()) {
        const qint64 front = m_hash.bytes();
        auto &[first, run] = *m_ahead.begin();
        if (!run.leadSum.isEmpty() && sumOfBytes(last(qMin(leadBytes, front))) != run.leadSum)
            return Joined::Foreign;
        run.leadSum.clear();
        const qint64 count = qMin(maxBytes, first + run.bytes - front);
        if (count > 0 && !readInto(m_hash, front, count))
            return Joined::Unreadable;
        maxBytes -= count;
        if (m_hash.bytes() == first + run.bytes)
            m_ahead.erase(m_ahead.begin());
        else if (maxBytes <= 0)
            return Joined::Some;
    }
    return Joined::All;
}

qint64 PartFile::firstAhead() const
{
    return m_ahead.empty() ? -1 : m_ahead.begin()->first;
}

qint64 PartFile::gatheredBytes() const
{
    const qint64 front = m_hash.bytes();
    qint64 bytes = front;
    eachRun([&bytes, front](qint64 first, qint64 end) { bytes += end - qMax(first, front); });
    return bytes;
}

QByteArray PartFile::last(qint64 bytes)
{
    return bytesBefore(m_hash.bytes(), bytes);
}

QByteArray PartFile::bytesBefore(qint64 position, qint64 bytes)
{
    return m_file.seek(position - bytes) ? m_file.read(bytes) : QByteArray();
}

QJsonArray PartFile::runsAsJson() const
{
    QJsonArray runs;
    for (const auto &[first, run] : m_ahead) {
        if (run.bytes > 0 && runs.size() < mostRuns)
            runs.append(QJsonObject{{QStringLiteral("first"), first},
                                    {QStringLiteral("bytes"), run.bytes},
                                    {QStringLiteral("sha256"), textOf(run.hash.sum())},
                                    {QStringLiteral("leadSha256"), textOf(run.leadSum)}});
    }
    return runs;
}

void PartFile::noteInJournal()
{
    m_sinceNote.start();
    if (!m_keepsJournal || !m_file.isOpen() || !m_origin.isProvable())
        return;
    QJsonObject journal = m_origin.toJson();
    journal.insert(QStringLiteral("version"), journalVersion);
    journal.insert(QStringLiteral("bytes"), m_hash.bytes());
    journal.insert(QStringLiteral("sha256"), textOf(m_hash.sum()));
    if (!m_ahead.empty())
        journal.insert(QStringLiteral("ahead"), runsAsJson());
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
