#include "JsonOutput.h"

#include "OutputPipe.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

constexpr int eventVersion = 1;

QByteArray bytesOf(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

/// A text as JSON.
QByteArray quoted(const QString &text)
{
    const QByteArray wrapped = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2);
}

QJsonValue textOrNull(const QString &text)
{
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

/// DEL and the second set of control characters, which JSON lets stand as they are.
QByteArray withoutControls(const QByteArray &line)
{
    QByteArray clean;
    clean.reserve(line.size());
    for (int i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<uchar>(line.at(i));
        const auto next = static_cast<uchar>(i + 1 < line.size() ? line.at(i + 1) : 0);
        if (byte == 0x7f) {
            clean += "\\u007f";
        } else if (byte == 0xc2 && next >= 0x80 && next <= 0x9f) {
            clean += "\\u00" + QByteArray::number(next, 16);
            ++i;
        } else {
            clean += line.at(i);
        }
    }
    return clean;
}

} // namespace

JsonOutput::JsonOutput(const Scheduler &scheduler, int fd, QObject *parent)
    : QObject(parent)
    , m_fd(fd)
{
    m_clock.start();
    connect(&scheduler, &Scheduler::pageEvent, this,
            [this](const PageTask *page, const QByteArray &line) {
                write(withPage(line, page->facts().address));
            });
    connect(&scheduler, &Scheduler::pageRetried, this,
            [this](const PageTask *page, int attempt, int most, qint64 pauseMs, RunClass cause) {
                writeOwn(QStringLiteral("pageRetry"), page->facts().address,
                         {{QStringLiteral("attempt"), attempt},
                          {QStringLiteral("most"), most},
                          {QStringLiteral("pauseMs"), pauseMs},
                          {QStringLiteral("cause"), RunClasses::rowOf(cause).name}});
            });
    connect(&scheduler, &Scheduler::pageEnded, this, &JsonOutput::writeEnd);
}

QByteArray JsonOutput::withPage(const QByteArray &line, const QString &address)
{
    const int brace = line.indexOf('{');
    return withoutControls("{\"page\":" + quoted(address) + ',' + line.mid(brace + 1));
}

QJsonObject JsonOutput::resultOf(const PageFacts &facts, const QJsonObject &result,
                                 qint64 elapsedMs)
{
    QJsonObject event{
        {QStringLiteral("version"), eventVersion},
        {QStringLiteral("event"), QStringLiteral("result")},
        {QStringLiteral("elapsedMs"),
         result.value(QLatin1String("elapsedMs")).toDouble(static_cast<double>(elapsedMs))}};
    const int code = RunClasses::exitCodeOf(facts.runClass);
    event.insert(QStringLiteral("class"), RunClasses::rowOf(facts.runClass).name);
    event.insert(QStringLiteral("classCode"), code);
    event.insert(QStringLiteral("exitCode"), code);
    event.insert(QStringLiteral("path"), textOrNull(facts.path));
    event.insert(QStringLiteral("thumbPath"), textOrNull(facts.thumbPath));
    event.insert(QStringLiteral("bytes"),
                 facts.bytes >= 0 ? QJsonValue(facts.bytes) : QJsonValue());
    event.insert(QStringLiteral("sha256"), textOrNull(QString::fromLatin1(facts.sha256)));
    for (const char *const time : {"startedAt", "analysedAt", "endedAt"})
        event.insert(QString::fromLatin1(time),
                     textOrNull(result.value(QLatin1String(time)).toString()));
    return event;
}

void JsonOutput::writeEnd(const PageFacts &facts, const QJsonObject &result)
{
    if (facts.isSkipped)
        return writeOwn(QStringLiteral("skipped"), facts.address, {});
    write(withPage(bytesOf(resultOf(facts, result, m_clock.elapsed())), facts.address));
}

void JsonOutput::finish(const Summary &summary)
{
    QJsonObject failures;
    for (const auto &[runClass, count] : summary.failures())
        failures.insert(RunClasses::rowOf(runClass).name, count);
    writeOwn(QStringLiteral("summary"), QString(),
             {{QStringLiteral("arrived"), summary.arrived()},
              {QStringLiteral("skipped"), summary.skipped()},
              {QStringLiteral("failed"), summary.failed()},
              {QStringLiteral("failures"), failures},
              {QStringLiteral("bytes"), summary.bytes()},
              {QStringLiteral("exitCode"), summary.exitCode()}});
}

void JsonOutput::writeOwn(const QString &name, const QString &address, QJsonObject members)
{
    members.insert(QStringLiteral("version"), eventVersion);
    members.insert(QStringLiteral("event"), name);
    members.insert(QStringLiteral("elapsedMs"), m_clock.elapsed());
    write(address.isEmpty() ? bytesOf(members) : withPage(bytesOf(members), address));
}

void JsonOutput::write(const QByteArray &line)
{
    if (!OutputPipe::write(m_fd, line + '\n'))
        emit readerGone();
}
