#ifndef PACKAGED_H
#define PACKAGED_H

#include "ScriptedServer.h"
#include "TestFiles.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>

/// What a program prints; empty when it fails.
inline QByteArray outputOf(const QString &program, const QStringList &arguments,
                           const QString &folder)
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.start(program, arguments);
    process.closeWriteChannel();
    const bool isDone = process.waitForFinished(120 * 1000) && process.exitCode() == 0;
    if (!isDone)
        qWarning("%s", process.readAllStandardError().constData());
    return isDone ? process.readAllStandardOutput() : QByteArray();
}

/// A folder of files that another program has made, and a server of them.
struct Packaged
{
    static inline const QByteArray key = "0123456789abcdef"; ///< in the file k.key

    /// What is packaged: a picture and a sound that are made meanwhile, or the file whole.mp4 of
    /// both, which is made first.
    enum class Input { Made, Whole };

    /// @param output what the packager is told behind its input; a bar stands for a blank within.
    ///               Empty where another packager follows.
    explicit Packaged(const QString &output, Input input = Input::Made)
    {
        writeFile(path("k.key"), key);
        writeFile(path("k.info"), "k.key\n" + path("k.key").toUtf8() + "\n");
        writeFile(path("iv.info"),
                  "k.key\n" + path("k.key").toUtf8() + "\n000102030405060708090a0b0c0d0e0f\n");
        const QString made = QStringLiteral(
            "-f lavfi -i testsrc2=size=64x48:rate=25 -f lavfi -i sine=frequency=440 -t 6 "
            "-c:v libx264 -preset ultrafast -g 25 -bf 2 -pix_fmt yuv420p -c:a aac ");
        if (input == Input::Whole)
            isMade = makeWhole(made)
                && (output.isEmpty() || runs(QLatin1String("-i whole.mp4 ") + output));
        else
            isMade = runs(made + output);
        server.onOther([this](const HttpRequest &request) {
            const QByteArray body = readFile(path(request.path().mid(1)));
            return body.isNull()
                ? replyOf("", 404)
                : ScriptedServer::rangeReply(request, body, typeOf(request.path()));
        });
    }

    static QByteArray typeOf(const QByteArray &path)
    {
        return path.endsWith(".m3u8") ? "application/vnd.apple.mpegurl"
            : path.endsWith(".mpd")   ? "application/dash+xml"
            : path.endsWith(".f4m")   ? "application/f4m+xml"
            : path.endsWith(".mp4")   ? "video/mp4"
            : path.contains("-Frag")  ? "video/f4f"
                                      : "video/mp2t";
    }

    QString path(const QByteArray &name) const
    {
        return folder.filePath(QString::fromLatin1(name));
    }

    /// The files in their order.
    QByteArray filesOf(const QString &pattern) const
    {
        QByteArray all;
        const QDir dir(folder.path());
        for (const QString &name : dir.entryList({pattern}, QDir::Files, QDir::Name))
            all += readFile(dir.filePath(name));
        return all;
    }

    [[nodiscard]] bool runs(const QString &words) const
    {
        QStringList arguments = (QLatin1String("-v error ") + words).split(QLatin1Char(' '));
        arguments.replaceInStrings(QStringLiteral("|"), QStringLiteral(" "));
        arguments += {QStringLiteral("-progress"), QStringLiteral("-")}; // says something at least
        return !outputOf(QStringLiteral("ffmpeg"), arguments, folder.path()).isEmpty();
    }

    /// Once is enough for a test program.
    [[nodiscard]] bool makeWhole(const QString &made) const
    {
        static QByteArray whole;
        if (whole.isEmpty() && runs(made + QLatin1String("whole.mp4")))
            whole = readFile(path("whole.mp4"));
        writeFile(path("whole.mp4"), whole);
        return !whole.isEmpty();
    }

    QTemporaryDir folder;
    ScriptedServer server;
    bool isMade = false;
};

#endif
