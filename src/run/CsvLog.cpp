#include "CsvLog.h"

#include "FolderLock.h"
#include "HostLine.h"
#include "WebAddress.h"

#include <QDir>
#include <QFile>

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

/// The text with a space for everything that some reader takes for the end of a line, or a terminal
/// for a command. Tabs stay.
QString onOneLine(QString text)
{
    text.replace(QLatin1String("\r\n"), QLatin1String(" "));
    std::replace_if(
        text.begin(), text.end(),
        [](QChar c) { return c != QLatin1Char('\t') && HostLine::breaksLine(c); },
        QLatin1Char(' '));
    return text;
}

constexpr int lockPatienceMs = 500;

/// Adds the row to the table, which others may be adding to at the same moment, and the header to
/// one that is empty. Of what finds no room on the disk nothing stays.
void appendRow(int fd, const QByteArray &header, const QByteArray &row)
{
    (void)FolderLock::take(fd, lockPatienceMs); // without it the row goes out all the same
    struct stat info = {};
    if (::fstat(fd, &info) != 0)
        return;
    const bool isNewTable = S_ISREG(info.st_mode) && info.st_size == 0;
    const QByteArray bytes = isNewTable ? header + row : row;
    const ssize_t written = ::write(fd, bytes.constData(), static_cast<size_t>(bytes.size()));
    if (written > 0 && written < bytes.size() && ::ftruncate(fd, info.st_size) != 0)
        qWarning("the result row of this run is cut");
}

} // namespace

CsvLog::CsvLog(ParseData &data)
    : CsvLog(data, RunOptions::ofCommandLine())
{
}

CsvLog::CsvLog(const ParseData &data, const RunOptions &options)
    : m_data(data)
    , m_options(options)
{
}

QString CsvLog::GetCsvHeader() const
{
    return QStringLiteral("TaskId,Url,State,Time Used(s),FileSize,Duration(s),Width,Height,Title,"
                          "Thumb Path,Video Path");
}

QString CsvLog::GetLogMessage() const
{
    const QString thumbPath = m_options.paths.thumb();
    const QString videoPath = m_data.getVideoFullPath(m_options);
    const QString videoMark = QFile::exists(videoPath) ? QString() : QStringLiteral("X ");

    QStringList columns{
        m_options.pageId,
        quoted(WebAddress::withoutCredentials(m_options.pageUrl)),
        m_data.succeeded ? QStringLiteral("Y") : QStringLiteral("N"),
        QString::number(m_data.getTimeUsed()),
    };
    if (m_data.selectedVideo >= 0) {
        const VideoFile &file = m_data.fileList.at(m_data.selectedVideo);
        columns += {QString::number(file.nSize), QString::number(file.duration),
                    QString::number(file.width), QString::number(file.height)};
    } else {
        columns += {QString(), QString(), QString(), QString()};
    }
    columns += {
        quoted(WebAddress::withoutCredentials(m_data.getHtmlTitle())),
        quoted(QFile::exists(thumbPath) ? QDir::toNativeSeparators(thumbPath) : QString()),
        quoted(videoMark + QDir::toNativeSeparators(videoPath)),
    };
    return onOneLine(columns.join(QLatin1Char(',')));
}

void CsvLog::saveDownloadResult()
{
    if (!m_options.isLogged)
        return;
    const QString path = m_options.csvPath();
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
    if (fd < 0)
        return;
    appendRow(fd, GetCsvHeader().toUtf8() + '\n', GetLogMessage().toUtf8() + '\n');
    ::close(fd);
}
