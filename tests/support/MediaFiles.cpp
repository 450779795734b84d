#include "MediaFiles.h"

#include <QProcess>
#include <QRegularExpression>

namespace {

constexpr int patienceMs = 120 * 1000;

struct Output
{
    QByteArray text;
    QByteArray complaints;
};

Output run(const QString &program, const QStringList &arguments, const QString &folder = QString())
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, arguments);
    if (!process.waitForFinished(patienceMs) || process.exitStatus() != QProcess::NormalExit)
        qFatal("%s cannot be run", qPrintable(program));
    Output output;
    output.text = process.readAllStandardOutput();
    output.complaints = process.readAllStandardError();
    if (process.exitCode() != 0)
        qFatal("%s %s: %s", qPrintable(program), qPrintable(arguments.join(QLatin1Char(' '))),
               output.complaints.constData());
    return output;
}

QList<QByteArray> lines(const QByteArray &text)
{
    QList<QByteArray> all;
    for (const QByteArray &line : text.split('\n')) {
        if (!line.isEmpty() && !line.startsWith('#'))
            all += line.trimmed();
    }
    return all;
}

/// What ffprobe says of a file's packets, as one text: a packet with side data takes several lines.
QByteArray packetTable(const QString &path, const QByteArray &stream, const QByteArray &column,
                       const QStringList &more = QStringList())
{
    QStringList arguments{QStringLiteral("-v"),
                          QStringLiteral("error"),
                          QStringLiteral("-select_streams"),
                          QString::fromLatin1(stream),
                          QStringLiteral("-show_entries"),
                          QStringLiteral("packet=") + QString::fromLatin1(column),
                          QStringLiteral("-of"),
                          QStringLiteral("csv=p=0")};
    arguments += more;
    arguments += path;
    return run(QStringLiteral("ffprobe"), arguments).text;
}

/// All that a pattern finds in a text, in order.
QList<QByteArray> findAll(const char *pattern, const QByteArray &text)
{
    QList<QByteArray> found;
    const QRegularExpression expression(QString::fromLatin1(pattern));
    for (auto match = expression.globalMatch(QString::fromLatin1(text)); match.hasNext();)
        found += match.next().captured().toLatin1();
    return found;
}

} // namespace

void MediaFiles::ffmpeg(const QStringList &arguments, const QString &folder)
{
    run(QStringLiteral("ffmpeg"),
        QStringList{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y")}
            + arguments,
        folder);
}

QStringList MediaFiles::testInputs(int seconds, const QString &size)
{
    const QString length = QStringLiteral(":duration=%1").arg(seconds);
    return {QStringLiteral("-f"), QStringLiteral("lavfi"),
            QStringLiteral("-i"), QStringLiteral("testsrc2=rate=25:size=") + size + length,
            QStringLiteral("-f"), QStringLiteral("lavfi"),
            QStringLiteral("-i"), QStringLiteral("sine=frequency=440:sample_rate=44100") + length};
}

QStringList MediaFiles::usualCodecs()
{
    return QStringLiteral("-c:v libx264 -preset ultrafast -bf 2 -g 25 -keyint_min 25 "
                          "-sc_threshold 0 -pix_fmt yuv420p -c:a aac -b:a 64k")
        .split(QLatin1Char(' '));
}

QList<QByteArray> MediaFiles::packets(const QString &path, const QByteArray &stream)
{
    return findAll("MD5:[0-9a-f]{32}",
                   packetTable(path, stream, "data_hash",
                               {QStringLiteral("-show_data_hash"), QStringLiteral("md5")}));
}

QList<double> MediaFiles::times(const QString &path, const QByteArray &stream, bool areShown)
{
    QList<double> times;
    const QByteArray table = packetTable(path, stream, areShown ? "pts_time" : "dts_time");
    for (const QByteArray &time : findAll("-?[0-9]+\\.[0-9]+", table))
        times += time.toDouble();
    return times;
}

QList<QByteArray> MediaFiles::frames(const QString &path, const QByteArray &stream)
{
    const QString map = QStringLiteral("0:") + QString::fromLatin1(stream);
    const QByteArray table =
        run(QStringLiteral("ffmpeg"),
            {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path,
             QStringLiteral("-map"), map, QStringLiteral("-vsync"), QStringLiteral("passthrough"),
             QStringLiteral("-f"), QStringLiteral("framemd5"), QStringLiteral("-")})
            .text;
    QList<QByteArray> hashes;
    for (const QByteArray &line : lines(table))
        hashes += line.mid(line.lastIndexOf(',') + 1).trimmed();
    return hashes;
}

QByteArray MediaFiles::complaints(const QString &path)
{
    return run(QStringLiteral("ffmpeg"),
               {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), path,
                QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")})
        .complaints;
}

QByteArray MediaFiles::probe(const QString &path, const QByteArray &entry)
{
    return run(QStringLiteral("ffprobe"),
               {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
                QString::fromLatin1(entry), QStringLiteral("-of"), QStringLiteral("csv=p=0"), path})
        .text.trimmed();
}
