#include "PageKind.h"

#include "PageRun.h"
#include "PageSite.h"
#include "ProgramRun.h"

#include <QJsonDocument>
#include <QTest>

namespace {

QString withoutQuery(const QString &address)
{
    return address.section(QLatin1Char('?'), 0, 0);
}

/// All lines of a run that brings a video, but for progress.
QByteArray linesAround(const QByteArray &recordLine, const QString &page, const QString &told)
{
    const QByteArray toldLine =
        told.isEmpty() ? QByteArray() : "videoUrl: \"" + told.toUtf8() + "\" \n";
    return parsingLine(page) + toldLine + recordLine + '\n' + fixedLine("start download video ...")
        + fixedLine("video download finished:success") + fixedLine("detach sharememory");
}

QByteArray recordLineOf(const QByteArray &errorOutput)
{
    const QList<QByteArray> lines = errorOutput.split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith("\"{\"fileList\":") && line.endsWith("}\" "))
            return line;
    }
    return {};
}

} // namespace

QStringList builtEngines()
{
    QStringList engines;
#ifdef CLIPWEIR_CHROMIUM
    engines += option("chromium");
#endif
#ifdef CLIPWEIR_WEBKIT
    engines += option("webkit");
#endif
    return engines;
}

QStringList engineOptions(const QString &engine)
{
    return {option("--engine"), engine};
}

QJsonObject recordOf(const QByteArray &errorOutput)
{
    const QByteArray line = recordLineOf(errorOutput);
    constexpr int before = 1; // the quotation mark
    constexpr int behind = 2; // another one and a space
    return QJsonDocument::fromJson(line.mid(before, line.size() - before - behind)).object();
}

QStringList candidatesOf(const QJsonObject &record)
{
    QStringList addresses;
    const QJsonArray files = record.value(option("fileList")).toArray();
    for (const QJsonValue &file : files)
        addresses += file.toObject().value(option("videoUrl")).toString();
    return addresses;
}

void addPageKinds(std::initializer_list<PageKind> kinds)
{
    QTest::addColumn<PageKind>("kind");
    QTest::addColumn<QString>("engine");
    const QString asked = qEnvironmentVariable("CLIPWEIR_PAGE_ENGINE");
    const QStringList engines = asked.isEmpty() ? builtEngines() : QStringList{asked};
    for (const PageKind &kind : kinds) {
        for (const QString &engine : engines) {
            if (engine != option("webkit") || kind.engines == Engines::Both)
                QTest::addRow("%s, %s", kind.name, qPrintable(engine)) << kind << engine;
        }
    }
}

void runPageKind()
{
    QFETCH(PageKind, kind);
    QFETCH(QString, engine);
    PageSite site;
    const QString page = site.page(kind.page);
    const QByteArray wanted = PageSite::media(option(kind.file));
    ProgramRun run;
    QVERIFY(run.run(engineOptions(engine) + QStringList{option("--url"), page}));

    const QByteArray lines = run.errorOutput();
    QVERIFY2(lines.contains("finished:success"), lines);
    const QString address = site.address(kind.address);
    if (kind.isInSource)
        QCOMPARE(withoutProgress(lines), linesAround(recordLineOf(lines), page, address));
    else
        QCOMPARE(withoutTold(withoutProgress(lines), address),
                 linesAround(recordLineOf(lines), page, QString()));
    QCOMPARE(run.exitCode(), 0);

    const QJsonObject record = recordOf(lines);
    QCOMPARE(record.value(option("title")).toString(),
             QString::fromUtf8(PageSite::titleOf(kind.page)));
    const QStringList candidates = candidatesOf(record);
    QVERIFY2(candidates.size() == kind.candidates, qPrintable(candidates.join(QLatin1Char(' '))));
    const int selected = record.value(option("selectedVideo")).toInt();
    QCOMPARE(withoutQuery(candidates.value(selected)), address);
    QVERIFY(run.fileContent(option("tmp/") + pageHash(page) + option(".mp4")) == wanted);
}
