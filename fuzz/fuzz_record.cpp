// The record of a page run: its JSON, and what it makes of the page's source. The word "NEXT" keeps
// the two apart.
#include "CsvLog.h"
#include "FuzzSupport.h"
#include "HostEvents.h"
#include "HostLine.h"
#include "ParseData.h"
#include "TextRenderer.h"
#include "VideoPreference.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

namespace {

constexpr int maxFileNameBytes = 255;
constexpr qint64 exactDoubleFrom = Q_INT64_C(1) << 53; // whole numbers beyond it may be rounded

/// Whether a text came back: half a surrogate pair may be replaced on the way through UTF-8.
bool isSame(const QString &again, const QString &text)
{
    return again == text || again == fuzz::text(text.toUtf8());
}

void checkFile(const VideoFile &file, const VideoFile &again)
{
    FUZZ_CHECK(isSame(again.address(), file.address()));
    FUZZ_CHECK(isSame(again.urlType, file.urlType));
    FUZZ_CHECK(isSame(again.strFormat, file.strFormat));
    FUZZ_CHECK(again.width == file.width && again.height == file.height);
    if (file.nSize > -exactDoubleFrom && file.nSize < exactDoubleFrom)
        FUZZ_CHECK(again.nSize == file.nSize);
}

/// What the record says is what is read back from it.
void checkJson(const ParseData &data)
{
    const QByteArray json = data.toJson();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    FUZZ_CHECK(error.error == QJsonParseError::NoError && document.isObject());
    FUZZ_CHECK(
        isSame(document.object().value(QStringLiteral("title")).toString(), data.getHtmlTitle()));
    FUZZ_CHECK(
        isSame(document.object().value(QStringLiteral("thumbUrl")).toString(), data.getThumbUrl()));
    FUZZ_CHECK(document.object().value(QStringLiteral("selectedVideo")).toInt()
               == data.selectedVideo);

    ParseData again;
    again.fromJson(json);
    FUZZ_CHECK(again.fileList.size() == data.fileList.size());
    FUZZ_CHECK(again.playList.size() == data.playList.size());
    for (int i = 0; i < data.fileList.size(); ++i)
        checkFile(data.fileList.at(i), again.fileList.at(i));
    for (int i = 0; i < data.playList.size(); ++i)
        FUZZ_CHECK(isSame(again.playList.at(i), data.playList.at(i)));

    // On its way to the host it stays one line and the same document.
    const QByteArray line = TextRenderer::lineOf(event::RecordMade{json})->toUtf8();
    FUZZ_CHECK(line.startsWith('"') && line.endsWith("\" "));
    FUZZ_CHECK(QJsonDocument::fromJson(line.mid(1, line.size() - 3)) == document);
    HostEvents::send(event::RecordMade{json});
}

/// A name made of the title is one that a file can have.
void checkPaths(const ParseData &data)
{
    const QString path = data.getSmartVideoFullPath();
    FUZZ_CHECK(path.isEmpty() == (data.getHtmlTitle().isEmpty() || data.selectedVideo < 0));
    if (path.isEmpty())
        return;
    const QString folder = CVideoPreference::instance()->GetOutDir() + QLatin1Char('/');
    FUZZ_CHECK(path.startsWith(folder));
    const QString name = path.mid(folder.size());
    FUZZ_CHECK(!name.contains(QLatin1Char('/')) && !name.contains(QChar(0)));
    FUZZ_CHECK(name.toUtf8().size() <= maxFileNameBytes && name.contains(QLatin1Char('.')));
}

void checkCandidates(ParseData &data)
{
    const int before = data.fileList.size();
    const QString address = data.getThumbUrl() + QLatin1String("/new.mp4");
    const bool isNew = !data.contains(address);
    FUZZ_CHECK(data.add(address) == isNew && !data.add(address));
    FUZZ_CHECK(data.fileList.size() == before + (isNew ? 1 : 0));
    VideoFile *const file = data.get(address);
    FUZZ_CHECK(file && file->address() == address);
    if (isNew) {
        data.setVideoSize(address, 5);
        data.setVideoSize(address, 6);
        FUZZ_CHECK(data.get(address)->nSize == 5);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    fuzz::setArguments({QStringLiteral("--url"), QStringLiteral("http://h.test/"),
                        QStringLiteral("--saveto"), fuzz::filePath(QStringLiteral("video.mp4"))});
    const QList<QByteArray> parts = fuzz::split(fuzz::bytes(data, size), QByteArrayLiteral("NEXT"));
    ParseData record;
    record.fromJson(parts.constFirst());
    record.pageSource = fuzz::text(parts.value(1));
    checkJson(record);
    checkCandidates(record);
    record.selectedVideo = record.fileList.size() - 1;
    checkJson(record);
    checkPaths(record);
    const QString row = CsvLog(record).GetLogMessage();
    FUZZ_CHECK(std::none_of(row.cbegin(), row.cend(), [](QChar c) {
        return c != QLatin1Char('\t') && HostLine::breaksLine(c);
    }));
    return 0;
}
