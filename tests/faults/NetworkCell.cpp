#include "NetworkCell.h"

#include "HdsFixtures.h"
#include "PageRun.h"
#include "TestFiles.h"

namespace {

constexpr int paddingBytes = 80000; // so that every position of the faults is inside
constexpr int videoBytes = 6000000; // from 5 MiB on a video counts as one
constexpr int keptBytes = 20000; // of the video, from an earlier run
constexpr int fragmentCount = 5;
constexpr int faultyFragment = 3;
constexpr int tagsPerFragment = 2;
constexpr qint64 floodBytes = 8 * 1024 * 1024; // after so many a run is stopped ...
constexpr qint64 headerFloodBytes = 256 * 1024; // ... which take headers in slowly
constexpr qint64 manifestFloodBytes = 128 * 1024 * 1024; // a run ends by itself at half of that
constexpr qint64 maxMemoryBytes = 1536LL * 1024 * 1024;
// The caller's limit for silence. This process serves eight runs at once, and what it is too busy
// to send must not count as silence. A fragment is waited for again and again.
#ifdef CLIPWEIR_SANITIZED
constexpr int stallS = 10;
#else
constexpr int stallS = 4;
#endif
constexpr int fragmentStallS = 2;

const QByteArray &video()
{
    static const QByteArray bytes = testBytes(videoBytes);
    return bytes;
}

QByteArray padding()
{
    return "<!--" + QByteArray(paddingBytes, 'x') + "-->";
}

QByteArray thumbnail()
{
    return testBytes(paddingBytes);
}

QByteArray fragmentPath(int number)
{
    return "/s/streamSeg1-Frag" + QByteArray::number(number);
}

QByteArray manifest(bool hasExternalBootstrap)
{
    QByteArray text = hds::manifest("stream", hds::simpleBootstrap(fragmentCount));
    if (hasExternalBootstrap) {
        const int begin = text.indexOf("<bootstrapInfo");
        const QByteArray end("</bootstrapInfo>");
        text.replace(begin, text.indexOf(end) + end.size() - begin,
                     "<bootstrapInfo profile=\"named\" id=\"b0\" url=\"b.abst\"/>");
    }
    return text.insert(text.indexOf("<media"), padding());
}

QString broken(const char *what)
{
    return QStringLiteral("BROKEN: ") + QString::fromLatin1(what);
}

/// Whether bytes are the beginning of the content, or all of it and then spaces.
bool isPrefix(const QByteArray &bytes, const QByteArray &content)
{
    return content.startsWith(bytes)
        || (bytes.startsWith(content) && bytes.count(' ') >= bytes.size() - content.size()
            && bytes.mid(content.size()).trimmed().isEmpty());
}

} // namespace

NetworkCell::NetworkCell(Stage stage, const NetworkFault &fault, const QString &expected)
    : m_stage(stage)
    , m_fault(fault)
    , m_isVideoHopedFor(expected != QLatin1String("parse failed"))
{
}

QString NetworkCell::videoPath() const
{
    return option("tmp/") + pageHash(m_page) + option(isStream() ? ".flv" : ".mp4");
}

void NetworkCell::sendFaulty(QTcpSocket *socket, const HttpRequest &request, const HttpReply &good)
{
    QObject::connect(socket, &QTcpSocket::bytesWritten, &m_server,
                     [this](qint64 count) { m_sentBytes += count; });
    m_fault.send(socket, request, good);
}

void NetworkCell::serveFaulty(const QByteArray &path, const HttpReply &good)
{
    m_server.onRaw(path, [this, good](const HttpRequest &request, QTcpSocket *socket) {
        sendFaulty(socket, request, good);
    });
}

void NetworkCell::servePage()
{
    QByteArray head;
    if (m_stage == Thumbnail)
        head =
            "<meta property=\"og:image\" content=\"" + m_server.address("/t.jpg").toUtf8() + "\">";
    if (m_stage == Probe)
        head = "<meta content='" + m_server.address("/probe.mp4").toUtf8() + "'>";
    // What makes it a page of interest ends with the last byte, so that a cut page has nothing of
    // it, however much of it the engine reads before it hears of the cut.
    const HttpReply page =
        htmlReply(isStream() ? padding() + "<script>new Image().src = '/s/m.f4m';</script>"
                             : "<html><head>" + head + "</head><body>" + padding()
                          + "<video src=\"/v.mp4\" autoplay>");
    if (m_stage == Page)
        serveFaulty("/page", page);
    else
        m_server.on("/page", page);
    if (m_stage == Probe)
        serveFaulty("/probe.mp4", mediaReply(testBytes(paddingBytes)));
    if (m_stage == Thumbnail)
        serveFaulty("/t.jpg", mediaReply(thumbnail(), "image/jpeg"));
}

void NetworkCell::serveVideo()
{
    m_server.onRaw("/v.mp4", [this](const HttpRequest &request, QTcpSocket *socket) {
        const HttpReply good = ScriptedServer::rangeReply(request, video(), "video/mp4");
        if ((m_stage == Video || m_stage == ResumedVideo) && isFromDownloader(request)) {
            sendFaulty(socket, request, good);
        } else if (m_stage == Thumbnail && isFromDownloader(request)) {
            m_waitingVideo = socket;
            m_videoReply = good;
        } else {
            socket->write(ScriptedServer::headOf(good) + good.body);
            socket->disconnectFromHost();
        }
    });
}

void NetworkCell::serveStream()
{
    const HttpReply manifestReply = mediaReply(manifest(m_stage == Bootstrap), "video/f4m");
    if (m_stage == Manifest)
        serveFaulty("/s/m.f4m", manifestReply);
    else
        m_server.on("/s/m.f4m", manifestReply);
    const QByteArray bootstrap = hds::simpleBootstrap(fragmentCount);
    serveFaulty("/s/b.abst", mediaReply((bootstrap + QByteArray(paddingBytes, '\0')).toBase64()));
    for (int i = 1; i <= fragmentCount; ++i)
        m_server.on(fragmentPath(i), mediaReply(hds::numberedFragment(i), "video/f4f"));
    if (m_stage == Fragment)
        serveFaulty(fragmentPath(faultyFragment),
                    mediaReply(hds::numberedFragment(faultyFragment, paddingBytes), "video/f4f"));
}

void NetworkCell::begin()
{
    m_page = m_server.address("/page");
    servePage();
    serveVideo();
    serveStream();
    QStringList arguments{option("--url"), m_page, option("--timeout"),
                          option(m_isVideoHopedFor ? "20" : "2")};
    if (isStream())
        arguments += option("--f4f");
    if (m_fault.isSilent)
        arguments +=
            {option("--stall"), QString::number(m_stage == Fragment ? fragmentStallS : stallS)};
    if (m_stage == Thumbnail)
        arguments += option("--thumb");
    if (m_stage == ResumedVideo) {
        arguments += {option("--size"), QString::number(videoBytes)};
        writeFile(m_run.program().path(videoPath()), video().left(keptBytes));
    }
    m_run.start(arguments);
}

bool NetworkCell::watch()
{
    const bool isThumbnailOver =
        m_run.program().errorOutput().contains("thumb download finished") || m_fault.isEndless;
    if (m_waitingVideo && isThumbnailOver) {
        m_waitingVideo->write(ScriptedServer::headOf(m_videoReply) + m_videoReply.body);
        m_waitingVideo->disconnectFromHost();
        m_waitingVideo.clear();
    }
    // A page, a probe and a thumbnail do not hold a run up; the others have no end of their own.
    const bool endsByItself = m_stage == Page || m_stage == Probe || m_stage == Thumbnail;
    if (m_fault.isEndless && !endsByItself && m_sentBytes >= stopAfterBytes())
        m_run.stop();
    return m_run.hasEnded();
}

/// How much of a flood a run takes before it is stopped.
qint64 NetworkCell::stopAfterBytes() const
{
    if (QByteArray(m_fault.name).contains("header"))
        return headerFloodBytes;
    return m_stage == Manifest || m_stage == Bootstrap ? manifestFloodBytes : floodBytes;
}

QString NetworkCell::outcome() const
{
    const QString result = m_run.result();
    if (result.startsWith(QLatin1String("BROKEN")))
        return result;
    if (!m_run.leftovers().isEmpty())
        return broken("it leaves ") + m_run.leftovers();
    if (m_run.peakBytes() > maxMemoryBytes)
        return broken("it takes too much memory");
    if (result == QLatin1String("parse failed"))
        return result;
    return isStream() ? judgeStream(result) : judgeVideo(result);
}

QString NetworkCell::judgeVideo(const QString &result) const
{
    const QByteArray file = m_run.program().fileContent(videoPath());
    if (!isPrefix(file, video()))
        return broken("bytes on disk are not the video's");
    if (m_stage == ResumedVideo && file.size() < keptBytes)
        return broken("bytes that were on disk are lost");
    if (m_stage == Thumbnail)
        return result == QLatin1String("success") ? judgeThumbnail() : result;
    const bool isWhole = file == video();
    return result == QLatin1String("success") && !isWhole ? QStringLiteral("success, a part")
                                                          : result;
}

QString NetworkCell::judgeThumbnail() const
{
    const QString path = option("tmp/") + pageHash(m_page) + option(".thumb");
    const bool isThere = QFile::exists(m_run.program().path(path));
    const QByteArray file = m_run.program().fileContent(path);
    const QByteArray output = m_run.program().errorOutput();
    if (output.contains("thumb download finished:success"))
        return file == thumbnail() ? QStringLiteral("success") : QStringLiteral("success, a part");
    return isThere ? broken("half a thumbnail stays") : QStringLiteral("failed");
}

QString NetworkCell::judgeStream(const QString &result) const
{
    const QString path = m_run.program().path(videoPath());
    if (!QFile::exists(path))
        return result == QLatin1String("success") ? broken("there is no file") : result;
    QString error;
    const auto tags = hds::readFlv(readFile(path), error);
    if (!error.isEmpty())
        return broken("the file is damaged: ") + error;
    if (result != QLatin1String("success"))
        return result;
    if (tags.size() == fragmentCount * tagsPerFragment)
        return result;
    return tags.size() == (fragmentCount - 1) * tagsPerFragment
        ? QStringLiteral("success, left out")
        : QStringLiteral("success, a part");
}
