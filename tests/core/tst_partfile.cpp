#include "PartFile.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QCryptographicHash>
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
