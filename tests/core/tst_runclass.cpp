#include "RunClass.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <set>

namespace {

QByteArray latin1(QLatin1String text)
{
    return {text.data(), text.size()};
}

} // namespace

/// The table of classes, and the papers that show it.
class tst_RunClass : public QObject
{
    Q_OBJECT

    static bool isIn(const char *paper, const QByteArray &text)
    {
        if (readFile(QStringLiteral(PAPERS_DIR) + QLatin1String(paper)).contains(text))
            return true;
        qWarning("%s lacks this:\n%s", paper, text.constData());
        return false;
    }

private slots:
    void everyClassHasItsOwnNumberAndName()
    {
        std::set<int> codes;
        std::set<QByteArray> names;
        std::set<RunClass> classes;
        int last = -1;
        for (const RunClasses::Row &row : RunClasses::all()) {
            QVERIFY(row.exitCode > last && row.exitCode < 126); // the shell's begin there
            last = row.exitCode;
            codes.insert(row.exitCode);
            names.insert(latin1(row.name));
            classes.insert(row.runClass);
            QCOMPARE(RunClasses::exitCodeOf(row.runClass), row.exitCode);
        }
        const auto count = static_cast<size_t>(RunClass::EngineMissing) + 1;
        QCOMPARE(codes.size(), count);
        QCOMPARE(names.size(), count);
        QCOMPARE(classes.size(), count);
    }

    void theHostGuideHasTheTable()
    {
        QByteArray table = "| Class | Code | Meaning |\n|---|---|---|\n";
        for (const RunClasses::Row &row : RunClasses::all())
            table += "| `" + latin1(row.name) + "` | " + QByteArray::number(row.exitCode) + " | "
                + latin1(row.meaning) + " |\n";
        QVERIFY(isIn("host-guide.md", table));
    }

    void theManualPageHasTheTable()
    {
        QByteArray table;
        for (const RunClasses::Row &row : RunClasses::all())
            table += ".TP\n.BR " + QByteArray::number(row.exitCode) + " \" " + latin1(row.name)
                + "\"\n" + latin1(row.meaning).replace("--", "\\-\\-") + "\n";
        QVERIFY(isIn("clipweir.1", table));
    }

    void theSchemaHasTheNames()
    {
        const QJsonObject schema =
            QJsonDocument::fromJson(readFile(QStringLiteral(PAPERS_DIR "events.schema.json")))
                .object();
        const QJsonArray names = schema.value(QStringLiteral("$defs"))
                                     .toObject()
                                     .value(QStringLiteral("class"))
                                     .toObject()
                                     .value(QStringLiteral("enum"))
                                     .toArray();
        QJsonArray expected;
        for (const RunClasses::Row &row : RunClasses::all())
            expected += row.name;
        QCOMPARE(names, expected);
    }
};

CLIPWEIR_TEST_MAIN(tst_RunClass)
#include "tst_runclass.moc"
