#include "CsvLog.h"

#include "HostLine.h"
#include "VideoPreference.h"
#include "WebAddress.h"

#include <QDir>
#include <QFile>
#include <QTemporaryFile>

#include <algorithm>

namespace {

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

/// The text with a blank for everything that some reader takes for the end of a line, or a terminal
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

/// Puts a file that holds just the header in place, unless another run has been faster. The header
/// stays the first line whatever runs end at the same moment.
void createWithHeader(const QString &path, const QByteArray &header)
{
    QTemporaryFile file(path + QLatin1String(".XXXXXX"));
    if (!file.open() || file.write(header) != header.size())
        return;
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup
                        | QFileDevice::ReadOther);
    file.close();
    if (file.rename(path)) // fails when the path exists by now
        file.setAutoRemove(false);
}

} // namespace

CsvLog::CsvLog(ParseData &data)
    : m_data(data)
{
}

QString CsvLog::GetCsvHeader() const
{
    return QStringLiteral("TaskId,Url,State,Time Used(s),FileSize,Duration(s),Width,Height,Title,"
                          "Thumb Path,Video Path");
}

QString CsvLog::GetLogMessage() const
{
    const auto *const preference = CVideoPreference::instance();
    const QString thumbPath = preference->GetThumbFullPath();
    const QString videoPath = m_data.getVideoFullPath();
    const QString videoMark = QFile::exists(videoPath) ? QString() : QStringLiteral("X ");

    QStringList columns{
        preference->GetPageUrlMD5(),
        quoted(WebAddress::withoutCredentials(preference->GetPageUrl())),
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
    const auto *const preference = CVideoPreference::instance();
    if (!preference->GetLog())
        return;
    const QString path = preference->GetCsvFullPath(QStringLiteral("csv"));
    if (!QFile::exists(path))
        createWithHeader(path, GetCsvHeader().toUtf8() + '\n');
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
        file.write(GetLogMessage().toUtf8() + '\n'); // one write: rows of several runs never mix
}
