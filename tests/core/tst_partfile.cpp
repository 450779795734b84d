#include "PartFile.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

FileOrigin origin()
{
    FileOrigin origin;
    origin.address = QStringLiteral("http://h/v");
    origin.etag = "\"1\"";
    origin.length = 10;
    return origin;
}

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

} // namespace

class tst_PartFile : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryWorkFolder> m_folder;
    QString m_path;

    QString part() const { return m_path + QStringLiteral(".part"); }
    QString journal() const { return part() + QStringLiteral(".json"); }

    /// Leaves what a run does that has got so many bytes.
    void leave(const QByteArray &bytes)
    {
        PartFile file(m_path, true);
        QVERIFY(file.open());
        QVERIFY(file.begin(origin()));
        QVERIFY(file.write(bytes.constData(), bytes.size()));
    }

    void changeJournal(const char *name, const QJsonValue &value)
    {
        QJsonObject object = QJsonDocument::fromJson(readFile(journal())).object();
        object.insert(QLatin1String(name), value);
        writeFile(journal(), QJsonDocument(object).toJson());
    }

    bool isTakenUp()
    {
        PartFile file(m_path, true);
        return file.open() && file.takeUp();
    }

private slots:
    void init()
    {
        m_folder = std::make_unique<TemporaryWorkFolder>();
        m_path = m_folder->path(QStringLiteral("v.mp4"));
    }

    void aWholeFileGetsItsName()
    {
        writeFile(m_path, "what was there before");
        PartFile file(m_path, true);
        QVERIFY(file.open());
        QVERIFY(file.begin(origin()));
        QVERIFY(file.write("0123456789", 10));
        QCOMPARE(readFile(m_path), QByteArray("what was there before"));
        QVERIFY(file.finish());
        QCOMPARE(file.sum(), QCryptographicHash::hash("0123456789", QCryptographicHash::Sha256));
        QCOMPARE(readFile(m_path), QByteArray("0123456789"));
        QCOMPARE(filesBelow(m_folder->path()), QStringList{QStringLiteral("v.mp4")});
    }

    void whatWasLeftIsTakenUp()
    {
        leave("01234");
        PartFile file(m_path, true);
        QVERIFY(file.open());
        QVERIFY(file.takeUp());
        QCOMPARE(file.bytes(), qint64(5));
        QCOMPARE(file.origin().etag, origin().etag);
        QCOMPARE(file.origin().length, qint64(10));
        QCOMPARE(file.last(3), QByteArray("234"));
        QVERIFY(file.write("56789", 5));
        QVERIFY(file.finish());
        QCOMPARE(readFile(m_path), QByteArray("0123456789"));
    }

    void whatTheJournalDoesNotKnowIsCut()
    {
        leave("01234");
        writeFile(part(), "01234and something that a killed run added");
        PartFile file(m_path, true);
        QVERIFY(file.open());
        QVERIFY(file.takeUp());
        QCOMPARE(readFile(part()), QByteArray("01234"));
    }

    void whatIsNotAsItWasIsNotTakenUp_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QJsonValue>("value");
        QTest::newRow("other bytes") << QByteArray("part") << QJsonValue(QLatin1String("0123x"));
        QTest::newRow("too few bytes") << QByteArray("part") << QJsonValue(QLatin1String("0123"));
        QTest::newRow("no bytes") << QByteArray("part") << QJsonValue(QLatin1String(""));
        QTest::newRow("no journal") << QByteArray("journal") << QJsonValue(QLatin1String(""));
        QTest::newRow("no JSON") << QByteArray("journal")
                                 << QJsonValue(QLatin1String("{\"version\":1,"));
        QTest::newRow("another version") << QByteArray("version") << QJsonValue(2);
        QTest::newRow("another sum") << QByteArray("sha256") << QJsonValue(QLatin1String("00"));
        QTest::newRow("no sum") << QByteArray("sha256") << QJsonValue();
        QTest::newRow("more than the length") << QByteArray("length") << QJsonValue(4);
        QTest::newRow("no length") << QByteArray("length") << QJsonValue();
        QTest::newRow("a length beyond all sense") << QByteArray("length") << QJsonValue(1e300);
        QTest::newRow("negative bytes") << QByteArray("bytes") << QJsonValue(-5);
        QTest::newRow("bytes beyond all sense") << QByteArray("bytes") << QJsonValue(1e300);
        QTest::newRow("no validator") << QByteArray("etag") << QJsonValue(QLatin1String(""));
        QTest::newRow("a validator that is a header of its own")
            << QByteArray("etag") << QJsonValue(QLatin1String("\"1\"\r\nX: y"));
    }

    void whatIsNotAsItWasIsNotTakenUp()
    {
        QFETCH(QByteArray, name);
        QFETCH(QJsonValue, value);
        leave("01234");
        QVERIFY(isTakenUp());
        if (name == "part")
            writeFile(part(), value.toString().toUtf8());
        else if (name == "journal")
            writeFile(journal(), value.toString().toUtf8());
        else
            changeJournal(name.constData(), value);
        QVERIFY(!isTakenUp());
    }

    /// A part with its first bytes and some ahead of a gap. The lead is what is before those.
    static void writeWithGap(PartFile &file, const QByteArray &lead = "345")
    {
        QVERIFY(file.open());
        QVERIFY(file.begin(origin()));
        QVERIFY(file.write("01", 2));
        QVERIFY(file.beginAt(6, lead));
        QVERIFY(file.writeAt(6, "6", 1));
        QVERIFY(file.writeAt(7, "78", 2));
    }

    void bytesAheadOfAGap()
    {
        PartFile file(m_path, true);
        writeWithGap(file, "012345");
        QCOMPARE(file.bytes(), qint64(2));
        QCOMPARE(file.gatheredBytes(), qint64(5));
        QCOMPARE(file.firstAhead(), qint64(6));
        QVERIFY(!file.canJoin());
        QVERIFY(file.write("234", 3));
        QVERIFY(file.join(100) == PartFile::Joined::All);
        QCOMPARE(file.bytes(), qint64(5));
        QVERIFY(file.write("5", 1));
        QVERIFY(file.canJoin());
        QVERIFY(file.join(2) == PartFile::Joined::Some);
        QCOMPARE(file.bytes(), qint64(8));
        QCOMPARE(file.gatheredBytes(), qint64(9));
        QVERIFY(file.writeAt(9, "9", 1)); // while it is being taken up
        QVERIFY(file.join(2) == PartFile::Joined::All);
        QCOMPARE(file.firstAhead(), qint64(-1));
        QCOMPARE(file.sum(), QCryptographicHash::hash("0123456789", QCryptographicHash::Sha256));
        QVERIFY(file.finish());
        QCOMPARE(readFile(m_path), QByteArray("0123456789"));
    }

    void whatDoesNotJoinIsForeign()
    {
        PartFile file(m_path, true);
        writeWithGap(file, "01234x");
        QVERIFY(file.write("2345", 4));
        QVERIFY(file.join(100) == PartFile::Joined::Foreign);
    }

    void leadsAreComparedWithWhatIsThere()
    {
        PartFile file(m_path, true);
        writeWithGap(file);
        QVERIFY(file.beginAt(2, "01"));
        QVERIFY(!file.beginAt(2, "0x"));
        QVERIFY(file.beginAt(9, "345678"));
        QVERIFY(!file.beginAt(9, "34567x"));
        QVERIFY(!file.beginAt(1, "0"));
        QVERIFY(!file.beginAt(7, "6"));
    }

    void nothingIsWrittenOver()
    {
        PartFile file(m_path, true);
        writeWithGap(file);
        const QRegularExpression warning(QStringLiteral("has something already"));
        for (const int position : {0, 1, 4, 6, 8}) {
            QTest::ignoreMessage(QtWarningMsg, warning);
            QVERIFY(!file.writeAt(position, "x", 1));
        }
        QTest::ignoreMessage(QtWarningMsg, warning);
        QVERIFY(!file.write("23456", 5));
        QVERIFY(file.write("2345", 4));
    }

    void whatWasAheadIsTakenUp()
    {
        {
            PartFile file(m_path, true);
            writeWithGap(file, "012345");
        }
        PartFile file(m_path, true);
        QVERIFY(file.open());
        QVERIFY(file.takeUp());
        QCOMPARE(file.gatheredBytes(), qint64(5));
        QVERIFY(file.write("2345", 4));
        QVERIFY(file.join(100) == PartFile::Joined::All);
        QVERIFY(file.write("9", 1));
        QVERIFY(file.finish());
        QCOMPARE(readFile(m_path), QByteArray("0123456789"));
    }

    void whatIsAheadButNotAsItWasIsLeft_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QJsonValue>("value");
        const auto row = [](const char *name, const QJsonValue &value) {
            QTest::newRow(qPrintable(
                QStringLiteral("%1 %2").arg(QLatin1String(name)).arg(value.toVariant().toString())))
                << QByteArray(name) << value;
        };
        for (const double value : {-1.0, 0.0, 1.0, 8.0, 9.0, 1e300})
            row("first", value);
        for (const double value : {-1.0, 0.0, 2.0, 4.0, 5.0, 9007199254740992.0, 1e300})
            row("bytes", value);
        row("first", QJsonValue());
        row("sha256", QLatin1String("00"));
        row("sha256", QJsonValue());
        row("leadSha256", QLatin1String(""));
        row("leadSha256", 5);
    }

    void whatIsAheadButNotAsItWasIsLeft()
    {
        QFETCH(QByteArray, name);
        QFETCH(QJsonValue, value);
        {
            PartFile file(m_path, true);
            writeWithGap(file);
        }
        QJsonArray runs =
            QJsonDocument::fromJson(readFile(journal())).object().value(text("ahead")).toArray();
        QCOMPARE(runs.size(), 1);
        QJsonObject run = runs.at(0).toObject();
        run.insert(QLatin1String(name), value);
        changeJournal("ahead", QJsonArray{run, 5, QJsonObject()});
        PartFile file(m_path, true);
        QVERIFY(file.open());
        QVERIFY(file.takeUp());
        QCOMPARE(file.gatheredBytes(), qint64(2));
        QCOMPARE(QFileInfo(part()).size(), qint64(2));
    }

    void runsThatLieOverOneAnother()
    {
        {
            PartFile file(m_path, true);
            writeWithGap(file);
        }
        const QJsonArray runs =
            QJsonDocument::fromJson(readFile(journal())).object().value(text("ahead")).toArray();
        changeJournal("ahead", QJsonArray{runs.at(0), runs.at(0)});
        PartFile file(m_path, true);
        QVERIFY(file.open());
        QVERIFY(file.takeUp());
        QCOMPARE(file.gatheredBytes(), qint64(5));
    }

    void withoutAJournalNothingIsLeftForLater()
    {
        {
            PartFile file(m_path, false);
            QVERIFY(file.open());
            QVERIFY(file.begin(origin()));
            QVERIFY(file.write("01234", 5));
        }
        QVERIFY(!QFile::exists(journal()));
        QVERIFY(!isTakenUp());
    }

    void oneAtATime()
    {
        PartFile first(m_path, true);
        QVERIFY(first.open());
        PartFile second(m_path, true);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("another run")));
        QVERIFY(!second.open());
        QVERIFY(second.isTaken());
    }

    void aFileThatIsBeingWrittenUnderItsNameStays()
    {
        OutputFile other;
        QVERIFY(other.open(m_path, OutputFile::Mode::Replace));
        PartFile file(m_path, true);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("another run")));
        QVERIFY(!file.open());
        QVERIFY(file.isTaken());
        other.close();
        QVERIFY(file.open());
        QVERIFY(file.begin(origin()));
        QVERIFY(other.open(m_path, OutputFile::Mode::Replace));
        QVERIFY(!file.finish());
        QVERIFY(file.isTaken());
    }

    void aFolderInItsPlaceIsNoPart()
    {
        QVERIFY(QDir().mkpath(part()));
        PartFile file(m_path, true);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("cannot be written")));
        QVERIFY(!file.open());
        QVERIFY(!file.isTaken());
    }

    void aPartThatWasRemovedIsNotFinished()
    {
        PartFile file(m_path, true);
        QVERIFY(file.open());
        QVERIFY(file.begin(origin()));
        QVERIFY(file.write("0123456789", 10));
        QVERIFY(QFile::remove(part()));
        QVERIFY(!file.finish());
        QVERIFY(!QFile::exists(m_path));
    }
};

CLIPWEIR_TEST_MAIN(tst_PartFile)
#include "tst_partfile.moc"
