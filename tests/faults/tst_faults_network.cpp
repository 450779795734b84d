#include "NetworkCell.h"
#include "NetworkTable.h"
#include "TestMain.h"

/// Whole runs whose network fails: every kind of transfer meets every kind of fault. The runs of a
/// stage go on side by side before its rows look at them.
class tst_FaultsNetwork : public QObject
{
    Q_OBJECT

    QHash<QByteArray, QString> m_outcomes; ///< of the stage under test, by fault

    void runStage(NetworkCell::Stage stage)
    {
        QTest::addColumn<QString>("outcome");
        QTest::addColumn<QString>("expected");
        std::vector<std::unique_ptr<FaultCell>> cells;
        for (const NetworkFault &fault : networkFaults()) {
            const QString expected =
                QString::fromLatin1(networkTable().expected(fault.name, stage));
            cells.push_back(std::make_unique<NetworkCell>(stage, fault, expected));
        }
        runTogether(cells);
        for (size_t i = 0; i < cells.size(); ++i) {
            const char *const fault = networkFaults().at(i).name;
            const FaultCell &cell = *cells.at(i);
            QTest::newRow(fault) << cell.outcome()
                                 << QString::fromLatin1(networkTable().expected(fault, stage));
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
        QCOMPARE(static_cast<size_t>(networkTable().rows.size()), networkFaults().size());
        for (const NetworkFault &fault : networkFaults())
            QVERIFY2(networkTable().expected(fault.name, 0), fault.name);
        QVERIFY(isDocumented(networkTable()));
    }

    void page_data() { runStage(NetworkCell::Page); }
    void page() { judge(); }
    void probe_data() { runStage(NetworkCell::Probe); }
    void probe() { judge(); }
    void video_data() { runStage(NetworkCell::Video); }
    void video() { judge(); }
    void resumedVideo_data() { runStage(NetworkCell::ResumedVideo); }
    void resumedVideo() { judge(); }
    void thumbnail_data() { runStage(NetworkCell::Thumbnail); }
    void thumbnail() { judge(); }
    void manifest_data() { runStage(NetworkCell::Manifest); }
    void manifest() { judge(); }
    void bootstrap_data() { runStage(NetworkCell::Bootstrap); }
    void bootstrap() { judge(); }
    void fragment_data() { runStage(NetworkCell::Fragment); }
    void fragment() { judge(); }
};

CLIPWEIR_TEST_MAIN(tst_FaultsNetwork)
#include "tst_faults_network.moc"
