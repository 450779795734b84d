#include "FileCell.h"

#include "HdsFixtures.h"
#include "TestFiles.h"

#include <QDate>
#include <QDir>
#include <QFileInfo>

#include <unistd.h>

namespace {

constexpr int videoBytes = 6000000; // from 5 MiB on a video counts as one
constexpr int keptBytes = 20000;
constexpr int limitBytes = 1000000; // of a file, or of all that is on the small disk
constexpr int fragmentCount = 10;
constexpr int heldFragment = 6;
constexpr int fragmentPadding = 200000;

const QByteArray &video()
{
    static const QByteArray bytes = testBytes(videoBytes);
    return bytes;
}

QByteArray fragmentPath(int number)
{
    return "/s/streamSeg1-Frag" + QByteArray::number(number);
}

/// Whether file systems can be mounted here, for a program of one's own at least.
bool canMount()
{
    static const bool can =
        QProcess::execute(QStringLiteral("unshare"),
                          {QStringLiteral("-rm"), QStringLiteral("mount"), QStringLiteral("-t"),
                           QStringLiteral("tmpfs"), QStringLiteral("none"), QStringLiteral("/mnt")})
        == 0;
    return can;
}

void setWritable(const QString &path, bool isWritable)
{
    QFile::Permissions permissions = QFile::ReadOwner | QFile::ExeOwner;
    if (isWritable)
        permissions |= QFile::WriteOwner;
    QFile::setPermissions(path, permissions);
}

} // namespace

FileCell::FileCell(Target target, Fault fault)
    : m_target(target)
    , m_fault(fault)
{
}

bool FileCell::isMidway() const
{
    return m_fault == FolderInPlaceMidway || m_fault == FolderGoneMidway;
}

QString FileCell::videoFile() const
{
    return m_run.program().path(option(isStream() ? "out/v.flv" : "out/v.mp4"));
}

QString FileCell::folder() const
{
    switch (m_target) {
    case Cache:
        return m_run.program().path(option("out/f4ftmp"));
    case Log:
    case Csv:
        return m_run.program().path(option("out/logs"));
    case Cookies:
        return m_run.program().path(option("jar"));
    default:
        return m_run.program().path(option("out"));
    }
}

QString FileCell::file() const
{
    switch (m_target) {
    case Thumbnail:
        return folder() + QLatin1Char('/') + pageHash(m_page) + option(".thumb");
    case Log:
        return folder() + QLatin1Char('/') + pageHash(m_page) + option(".log");
    case Csv:
        return folder() + QLatin1Char('/') + QDate::currentDate().toString(Qt::ISODate)
            + option(".csv");
    case Cookies:
        return folder() + option("/cookies.txt");
    default:
        return videoFile();
    }
}

/// Serves a body whose second half waits for release().
void FileCell::serveHeld(const QByteArray &path, const HttpReply &reply)
{
    m_server.onRaw(path, [this, reply](const HttpRequest &request, QTcpSocket *socket) {
        const bool isEngine = reply.body.size() == videoBytes && !isFromDownloader(request);
        HttpReply answer = reply;
        if (request.hasHeader("Range") && reply.body.size() == videoBytes)
            answer = ScriptedServer::rangeReply(request, reply.body, "video/mp4");
        const QByteArray bytes = ScriptedServer::headOf(answer) + answer.body;
        if (isEngine) {
            socket->write(bytes);
            socket->disconnectFromHost();
            return;
        }
        const int half = bytes.size() / 2;
        socket->write(bytes.left(half));
        m_heldRest = bytes.mid(half);
        m_held = socket;
    });
}

void FileCell::serve()
{
    QByteArray head;
    if (m_target == Thumbnail)
        head =
            "<meta property=\"og:image\" content=\"" + m_server.address("/t.jpg").toUtf8() + "\">";
    HttpReply page =
        htmlReply(isStream() ? QByteArray("<script>new Image().src='/s/m.f4m'</script>")
                             : videoPage("/v.mp4", head));
    page.headers += qMakePair(QByteArray("Set-Cookie"), QByteArray("kept=1; Path=/; Max-Age=3600"));
    m_server.on("/page", page);
    m_server.on("/s/m.f4m",
                mediaReply(hds::manifest("stream", hds::simpleBootstrap(fragmentCount))));
    for (int i = 1; i <= fragmentCount; ++i)
        m_server.on(fragmentPath(i), mediaReply(hds::numberedFragment(i, fragmentPadding)));

    if (isStream()) {
        serveHeld(fragmentPath(heldFragment),
                  mediaReply(hds::numberedFragment(heldFragment, fragmentPadding)));
    } else if (m_target != Thumbnail) {
        serveHeld("/v.mp4", mediaReply(video()));
    } else {
        serveHeld("/t.jpg", mediaReply(testBytes(100000), "image/jpeg"));
        m_server.onRaw("/v.mp4", [this](const HttpRequest &request, QTcpSocket *socket) {
            const HttpReply reply = mediaReply(video());
            const QByteArray bytes = ScriptedServer::headOf(reply) + reply.body;
            if (isFromDownloader(request)) {
                socket->write(bytes.left(bytes.size() - 1)); // ends when the thumbnail has
                m_video = socket;
            } else {
                socket->write(bytes);
                socket->disconnectFromHost();
            }
        });
    }
}

void FileCell::prepareFault()
{
    if (m_fault == FileInPlaceOfFolder) {
        QDir(folder()).removeRecursively();
        writeFile(folder(), "a file");
        return;
    }
    QDir().mkpath(folder());
    if (m_fault == FullDevice) {
        QFile::link(option("/dev/full"), file());
    } else if (m_fault == FolderInPlace) {
        QDir().mkpath(file());
    } else if (m_fault == UnwritableFolder) {
        setWritable(folder(), false);
    } else if (m_fault == UnwritableFile) {
        m_before = m_target == Video ? video().left(keptBytes) : QByteArray("what was there\n");
        writeFile(file(), m_before);
        setWritable(file(), false);
        if (m_target == Cookies) // a file that is replaced needs a folder that can be written
            setWritable(folder(), false);
    }
}

QStringList FileCell::launcher() const
{
    if (m_fault == SizeLimit || (m_fault == FullDisk && !canMount()))
        return {option("prlimit"), option("--fsize=") + QString::number(limitBytes), option("--")};
    if (m_fault == FullDisk) {
        // What is on the small disk is copied to where it can be looked at before it vanishes.
        const QString script = QStringLiteral(
            "set -e; mkdir -p \"$0\" \"$0.after\"; mount -t tmpfs -o size=%1 none \"$0\"; set +e; "
            "\"$@\"; status=$?; cp -a \"$0/.\" \"$0.after\"; exit $status");
        return {option("unshare"), option("-rm"),          option("sh"),
                option("-c"),      script.arg(limitBytes), folder()};
    }
    const bool isPermission = m_fault == UnwritableFile || m_fault == UnwritableFolder;
    if (isPermission && ::geteuid() == 0) // who may write everywhere by default
        return {option("setpriv"), option("--bounding-set=-dac_override,-dac_read_search"),
                option("--")};
    return {};
}

void FileCell::begin()
{
    m_page = m_server.address("/page");
    QDir().mkpath(m_run.program().path(option("out")));
    QDir().mkpath(m_run.program().path(option("jar")));
    m_run.program().setEnvironment(option("CLIPWEIR_COOKIES"),
                                   m_run.program().path(option("jar/cookies.txt")));
    serve();
    prepareFault();
    m_run.program().setLauncher(launcher());
    QStringList arguments{option("--url"),     m_page,       option("--saveto"), videoFile(),
                          option("--timeout"), option("20"), option("--log")};
    if (isStream())
        arguments += option("--f4f");
    if (m_target == Thumbnail)
        arguments += {option("--thumb"), option("--noresume")};
    if (m_target == Video && m_fault == UnwritableFile)
        arguments += {option("--size"), QString::number(videoBytes)};
    m_run.start(arguments);
}

/// Whether the run has begun to write where the fault is to come.
bool FileCell::isInUse() const
{
    switch (m_target) {
    case Video:
    case Thumbnail:
    case Stream:
        return QFileInfo(file()).size() > 0;
    case Cache:
        return !QDir(folder()).isEmpty();
    default:
        return true;
    }
}

void FileCell::applyMidway()
{
    if (m_fault == FolderGoneMidway) {
        QDir(folder()).removeRecursively();
    } else if (m_fault == FolderInPlaceMidway) {
        QFile::remove(file());
        QDir().mkpath(file());
    }
}

void FileCell::release()
{
    m_isOver = true;
    m_held->write(m_heldRest);
    m_held->disconnectFromHost();
    m_held.clear();
}

bool FileCell::watch()
{
    if (m_held && (!isMidway() || isInUse())) {
        if (isMidway() && !m_isOver)
            applyMidway();
        release();
    }
    if (m_video && m_run.program().errorOutput().contains("thumb download finished")) {
        m_video->write(video().right(1));
        m_video->disconnectFromHost();
        m_video.clear();
    }
    return m_run.hasEnded();
}

QString FileCell::outcome() const
{
    constexpr int noOutputFolder = 13;
    const ProgramRun &program = m_run.program();
    if (program.endedNormally() && program.exitCode() == noOutputFolder)
        return program.errorOutput().isEmpty() ? option("refused") : option("BROKEN: it speaks");
    const QString result = m_run.result();
    if (result.startsWith(QLatin1String("BROKEN")))
        return result;
    if (!m_run.leftovers().isEmpty())
        return option("BROKEN: it leaves ") + m_run.leftovers();
    // A thumbnail and a stream are begun anew, and what is removed need not be writable.
    const bool isReplaced = m_target == Thumbnail || m_target == Stream;
    if (m_fault == UnwritableFile && !isReplaced && readFile(file()) != m_before)
        return option("BROKEN: what was there is lost");
    return judgeVideo(result);
}

QString FileCell::judgeVideo(const QString &result) const
{
    const bool isElsewhere = m_fault == FullDisk && canMount() && folder().endsWith(option("/out"));
    const QString path = isElsewhere
        ? folder() + option(".after/") + QFileInfo(videoFile()).fileName()
        : videoFile();
    const QByteArray content = QFileInfo(path).isFile() ? readFile(path) : QByteArray();
    QString error;
    if (isStream() && !content.isEmpty() && result == QLatin1String("success")) {
        if (hds::readFlv(content, error).size() != 2 * fragmentCount)
            return option("BROKEN: the stream is not whole");
    } else if (!isStream() && !video().startsWith(content)) {
        return option("BROKEN: bytes on disk are not the video's");
    }
    if (result == QLatin1String("success")
        && (content.isEmpty() || (!isStream() && content != video())))
        return option("BROKEN: success without a whole file");
    if (m_target != Thumbnail)
        return result;
    const QByteArray output = m_run.program().errorOutput();
    return output.contains("thumb download finished:success") ? option("success")
                                                              : option("failed");
}
