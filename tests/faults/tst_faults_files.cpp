#include "FileCell.h"
#include "OutcomeTable.h"
#include "TestMain.h"

namespace {

const char *const nothing = "–"; // such a fault is none here

const OutcomeTable &table()
{
    static const OutcomeTable outcomes{
        "Fault",
        {"video", "thumbnail", "stream", "fragment cache", "log", "table", "cookies"},
        {
            {"no space on the device",
             {"failed", "failed", "failed", nothing, "success", "success", nothing}},
            {"full disk",
             {"failed", nothing, "failed", "success", "success", "success", "success"}},
            {"limit of file sizes",
             {"failed", nothing, "failed", nothing, nothing, nothing, nothing}},
            {"a folder in its place",
             {"failed", "failed", "failed", nothing, "success", "success", "success"}},
            {"a folder in its place, midway",
             {"failed", "failed", "failed", nothing, "success", "success", "success"}},
            {"its folder gone, midway",
             {"failed", "failed", "failed", "success", "success", "success", "success"}},
            {"a file in place of its folder",
             {"refused", "refused", "refused", "success", "success", "success", "success"}},
            {"no permission in its folder",
             {"failed", "failed", "failed", "success", "success", "success", "success"}},
            {"no permission for the file",
             {"failed", "success", "success", nothing, "success", "success", "success"}},
        }};
    return outcomes;
}

} // namespace

/// Whole runs whose file system fails: every kind of file meets every kind of fault. The runs of a
/// kind go on side by side before its rows look at them.
class tst_FaultsFiles : public QObject
{
    Q_OBJECT

    static void runTarget(FileCell::Target target)
    {
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QString>("expected");
        std::vector<std::unique_ptr<FaultCell>> cells;
        QVector<const char *> names;
        for (int i = 0; i < FileCell::FaultCount; ++i) {
            const OutcomeTable::Row &row = table().rows.at(i);
            if (row.outcomes.at(target) == nothing)
                continue;
            cells.push_back(std::make_unique<FileCell>(target, static_cast<FileCell::Fault>(i)));
            names += row.fault;
        }
        runTogether(cells);
        for (int i = 0; i < names.size(); ++i) {
            QTest::newRow(names.at(i)) << cells.at(static_cast<size_t>(i))->outcome()
                                       << QString::fromUtf8(table().expected(names.at(i), target));
        }
    }

    static void judge()
    {
        QFETCH(QString, outcome);
        QFETCH(QString, expected);
        QCOMPARE(outcome, expected);
    }

private slots:
    void everyFaultHasItsRow()
    {
        QCOMPARE(table().rows.size(), int(FileCell::FaultCount));
        QVERIFY(isDocumented(table()));
    }

    void video_data() { runTarget(FileCell::Video); }
    void video() { judge(); }
    void thumbnail_data() { runTarget(FileCell::Thumbnail); }
    void thumbnail() { judge(); }
    void stream_data() { runTarget(FileCell::Stream); }
    void stream() { judge(); }
    void cache_data() { runTarget(FileCell::Cache); }
    void cache() { judge(); }
    void log_data() { runTarget(FileCell::Log); }
    void log() { judge(); }
    void csv_data() { runTarget(FileCell::Csv); }
    void csv() { judge(); }
    void cookies_data() { runTarget(FileCell::Cookies); }
    void cookies() { judge(); }
};

CLIPWEIR_TEST_MAIN(tst_FaultsFiles)
#include "tst_faults_files.moc"
