#include "HdsStream.h"

#include <QDir>
#include <QFile>
#include <QProcess>

namespace {

constexpr int ffmpegTimeoutMs = 120000;

struct Output
{
    bool isSuccess = false;
    QByteArray standard;
    QByteArray errors;
};

Output runFfmpeg(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("ffmpeg"),
                  QStringList{QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-y"),
                              QStringLiteral("-nostdin")}
                      + arguments);
    Output output;
    output.isSuccess = process.waitForFinished(ffmpegTimeoutMs)
        && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    output.standard = process.readAllStandardOutput();
    output.errors = process.readAllStandardError();
    if (!output.isSuccess)
        qWarning("ffmpeg failed: %s", output.errors.constData());
    return output;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

HdsStream::HdsStream(const QString &folder)
    : m_folder(folder)
{
    QDir().mkpath(m_folder);
}

bool HdsStream::make(const QStringList &encoding, int seconds, int fragmentMs)
{
    const QString duration = QString::number(seconds);
    QStringList arguments;
    if (!encoding.contains(QStringLiteral("-vn"))) {
        arguments << QStringLiteral("-f") << QStringLiteral("lavfi") << QStringLiteral("-i")
                  << QStringLiteral("testsrc=size=320x240:rate=25");
    }
    if (!encoding.contains(QStringLiteral("-an"))) {
        arguments << QStringLiteral("-f") << QStringLiteral("lavfi") << QStringLiteral("-i")
                  << QStringLiteral("sine=440:sample_rate=44100");
    }
    arguments << QStringLiteral("-t") << duration << encoding << sourceFile();
    if (!runFfmpeg(arguments).isSuccess)
        return false;
    return runFfmpeg({QStringLiteral("-i"), sourceFile(), QStringLiteral("-c"),
                      QStringLiteral("copy"), QStringLiteral("-f"), QStringLiteral("hds"),
                      QStringLiteral("-min_frag_duration"), QString::number(fragmentMs * 1000),
                      m_folder})
        .isSuccess;
}

QString HdsStream::sourceFile() const
{
    return m_folder + QLatin1String("/source.flv");
}

int HdsStream::fragmentCount() const
{
    return QDir(m_folder).entryList({QStringLiteral("stream0Seg1-Frag*")}).size();
}

QByteArray HdsStream::manifest(const QString &prefix) const
{
    QByteArray text = contentOf(m_folder + QLatin1String("/index.f4m"));
    const QByteArray bootstrap = contentOf(m_folder + QLatin1String("/stream0.abst"));
    text.replace(" url=\"stream0.abst\" id=\"bootstrap0\" />",
                 " id=\"bootstrap0\">" + bootstrap.toBase64() + "</bootstrapInfo>");
    text.replace(" url=\"stream0\"", " url=\"" + prefix.toUtf8() + "stream0\"");
    return text;
}

bool HdsStream::writeManifest(const QString &name, const QString &prefix) const
{
    QFile file(m_folder + QLatin1Char('/') + name);
    const QByteArray text = manifest(prefix);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

QList<HdsStream::Packet> HdsStream::packets(const QString &file, const QString &stream)
{
    // Lines of "index, dts, pts, duration, size, hash" in the unit of FLV, a millisecond.
    const Output output =
        runFfmpeg({QStringLiteral("-i"), file, QStringLiteral("-map"),
                   QStringLiteral("0:") + stream, QStringLiteral("-c"), QStringLiteral("copy"),
                   QStringLiteral("-copyts"), QStringLiteral("-f"), QStringLiteral("framehash"),
                   QStringLiteral("-hash"), QStringLiteral("md5"), QStringLiteral("-")});
    QList<Packet> packets;
    qint64 firstMs = 0;
    for (const QByteArray &line : output.standard.split('\n')) {
        const QList<QByteArray> fields = line.split(',');
        if (line.startsWith('#') || fields.size() < 6)
            continue;
        const qint64 timeMs = fields.at(1).trimmed().toLongLong();
        if (packets.isEmpty())
            firstMs = timeMs;
        packets += {timeMs - firstMs, fields.at(4).trimmed() + ' ' + fields.at(5).trimmed()};
    }
    return packets;
}

QByteArray HdsStream::complaints(const QString &file)
{
    return runFfmpeg({QStringLiteral("-i"), file, QStringLiteral("-f"), QStringLiteral("null"),
                      QStringLiteral("-")})
        .errors;
}
