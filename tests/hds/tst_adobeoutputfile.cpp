#include "AdobeData.h"
#include "AdobeOutputFile.h"
#include "AdobePreference.h"
#include "HdsFixtures.h"
#include "MessageCatcher.h"
#include "TestMain.h"

#include <QProcess>
#include <QTemporaryDir>

#include <memory>

namespace {

const QByteArray fileHeader("FLV\x01\x05\x00\x00\x00\x09\x00\x00\x00\x00", 13);

} // namespace

class tst_AdobeOutputFile : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_folder;

    static CAdobeOutputFile *output() { return CAdobeOutputFile::GetInstance(); }

    static void setOption(const char *key, const QVariant &value)
    {
        CAdobePreference::GetInstance()->SetOption(QLatin1String(key), value);
    }

    QByteArray content(const QString &name = QStringLiteral("out.flv")) const
    {
        QFile file(m_folder->filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    /// The texts of the media tags; the reason when the file is not sound.
    QByteArrayList names() const
    {
        QString error;
        QByteArrayList result;
        for (const auto &tag : hds::readFlv(content(), error))
            result += tag.data.mid(tag.type == 9 ? 5 : tag.type == 8 ? 2 : 0);
        return error.isEmpty() ? result : QByteArrayList{error.toUtf8()};
    }

    /// Decodes one fragment and returns the names of its tags.
    QByteArrayList decoded(const QByteArray &fragment)
    {
        CAdobeData::GetInstance()->SetFragCount(1);
        output()->Begin(1);
        output()->SetFragContent(1, fragment);
        if (output()->WriteFlvFile() != 1)
            return {"not written"};
        return names();
    }

private slots:
    void init()
    {
        m_folder = std::make_unique<QTemporaryDir>();
        CAdobePreference::GetInstance()->Reset();
        CAdobeData::GetInstance()->Reset();
        setOption("outDir", m_folder->path());
        setOption("outFile", QStringLiteral("out.flv"));
        CAdobeData::GetInstance()->SetFragCount(5);
        output()->Begin(1);
    }

    void cleanup() { output()->End(); }

    void header_data()
    {
        QTest::addColumn<bool>("audio");
        QTest::addColumn<bool>("video");
        QTest::addColumn<int>("flags");
        QTest::newRow("both") << true << true << 5;
        QTest::newRow("audio") << true << false << 4;
        QTest::newRow("video") << false << true << 1;
        QTest::newRow("none") << false << false << 0;
    }

    void header()
    {
        QFETCH(bool, audio);
        QFETCH(bool, video);
        QFETCH(int, flags);
        QByteArray expected = fileHeader;
        expected[4] = static_cast<char>(flags);
        QCOMPARE(CAdobeOutputFile::GetFlvHeader(audio, video), expected);
    }

    void aNewFileBeginsWithItsHeader()
    {
        output()->SetFragContent(1, QByteArray());
        QCOMPARE(output()->WriteFlvFile(), 1);
        QCOMPARE(content().toHex(), QByteArray("464c5601050000000900000000"));
    }

    void whatWasThereIsReplaced()
    {
        QFile file(m_folder->filePath(QStringLiteral("out.flv")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(10000, 'x'));
        file.close();
        QCOMPARE(output()->WriteFlvFile(), 0);
        QCOMPARE(content().size(), 10000); // not before there is something to write
        output()->SetFragContent(1, hds::numberedFragment(1));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QCOMPARE(names(), (QByteArrayList{"a1", "v1"}));
    }

    void fragmentsAreWrittenInOrder()
    {
        QCOMPARE(output()->GetWriteFragNum(), 0);
        output()->SetFragContent(3, hds::numberedFragment(3));
        output()->SetFragContent(2, hds::numberedFragment(2));
        QCOMPARE(output()->WriteFlvFile(), 0);
        QCOMPARE(output()->GetWriteFragNum(), 0);
        output()->SetFragContent(1, hds::numberedFragment(1));
        QCOMPARE(output()->WriteFlvFile(), 3);
        QCOMPARE(output()->GetWriteFragNum(), 3);
        output()->SetFragContent(5, hds::numberedFragment(5));
        QCOMPARE(output()->WriteFlvFile(), 0);
        output()->SetFragContent(4, hds::numberedFragment(4));
        QCOMPARE(output()->WriteFlvFile(), 2);
        QCOMPARE(output()->GetWriteFragNum(), 5);
        QCOMPARE(output()->WriteFlvFile(), 0);
        QCOMPARE(names(),
                 (QByteArrayList{"a1", "v1", "a2", "v2", "a3", "v3", "a4", "v4", "a5", "v5"}));
        QCOMPARE(output()->HeldBytes(), qint64(0));
    }

    void theFileWaitsForTheFirstFragmentHandedOut()
    {
        CAdobeData::GetInstance()->SetFragCount(103);
        output()->Begin(101);
        output()->SetFragContent(102, hds::numberedFragment(102));
        QCOMPARE(output()->WriteFlvFile(), 0);
        output()->SetFragContent(101, hds::numberedFragment(101));
        QCOMPARE(output()->WriteFlvFile(), 2);
        QCOMPARE(output()->GetWriteFragNum(), 102);
        QCOMPARE(names(), (QByteArrayList{"a101", "v101", "a102", "v102"}));
    }

    void fragmentsAboveTheCountAreNotWritten()
    {
        CAdobeData::GetInstance()->SetFragCount(1);
        output()->SetFragContent(1, hds::numberedFragment(1));
        output()->SetFragContent(2, hds::numberedFragment(2));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QCOMPARE(output()->WriteFlvFile(), 0);
    }

    void aLaterContentReplacesTheOneBefore()
    {
        output()->SetFragContent(1, QByteArray(1000, 'x'));
        output()->SetFragContent(1, hds::numberedFragment(7));
        QCOMPARE(output()->HeldBytes(), qint64(hds::numberedFragment(7).size()));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QCOMPARE(names(), (QByteArrayList{"a7", "v7"}));
        output()->SetFragContent(1, hds::numberedFragment(8)); // too late
        QCOMPARE(output()->WriteFlvFile(), 0);
        QCOMPARE(output()->HeldBytes(), qint64(0));
    }

    void givenUpFragmentsLeaveNothing()
    {
        output()->SetFragContent(1, hds::numberedFragment(1));
        output()->SetFragContent(2, QByteArray());
        output()->SetFragContent(3, "no boxes at all");
        output()->SetFragContent(4, hds::box("moof", QByteArray(20, 'x')));
        output()->SetFragContent(5, hds::numberedFragment(5));
        QCOMPARE(output()->WriteFlvFile(), 5);
        QCOMPARE(names(), (QByteArrayList{"a1", "v1", "a5", "v5"}));
    }

    void whatIsMissingIsCounted()
    {
        CAdobeData::GetInstance()->SetFragCount(6);
        QByteArray cut = hds::fragment(hds::audioTag(0, "a4") + hds::audioTag(1, "b4"));
        cut.chop(7);
        output()->SetFragContent(1, QByteArray());
        output()->SetFragContent(2, "no boxes at all");
        output()->SetFragContent(3, hds::fragment(hds::tag(18, 0, "script")));
        QCOMPARE(output()->WriteFlvFile(), 3);
        QVERIFY(!output()->HasMedia());
        output()->SetFragContent(4, cut);
        output()->SetFragContent(5,
                                 hds::fragment(hds::tag(0x29, 0, "secret") + hds::tag(7, 0, "")
                                               + hds::audioTag(0, "a5")));
        output()->SetFragContent(6, hds::numberedFragment(6));
        QCOMPARE(output()->WriteFlvFile(), 3);
        QVERIFY(output()->HasMedia());
        const CAdobeOutputFile::Losses losses = output()->GetLosses();
        QCOMPARE(losses.given, 6);
        QCOMPARE(losses.missing, 1);
        QCOMPARE(losses.unusable, 2);
        QCOMPARE(losses.cut, 1);
        QCOMPARE(losses.skippedTags, qint64(2));
        QVERIFY(!losses.isNone());

        output()->Begin(1);
        QVERIFY(!output()->HasMedia());
        QVERIFY(output()->GetLosses().isNone());
        output()->SetFragContent(1, hds::numberedFragment(1));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QVERIFY(output()->GetLosses().isNone());
    }

    void onlyEncryptedTagsAreNoMedia()
    {
        output()->SetFragContent(1, hds::fragment(hds::tag(0x28, 0, "x") + hds::tag(0x29, 9, "y")));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QVERIFY(!output()->HasMedia());
        QCOMPARE(output()->GetLosses().unusable, 1);
    }

    void contentFromAFile()
    {
        QFile file(m_folder->filePath(QStringLiteral("cached")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(hds::numberedFragment(1));
        file.close();
        output()->SetFragFile(1, file.fileName(), file.size());
        QCOMPARE(output()->HeldBytes(), qint64(0));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QCOMPARE(output()->LostFragment(), 0);
        QCOMPARE(output()->HeldBytes(), qint64(0));
        QCOMPARE(names(), (QByteArrayList{"a1", "v1"}));
    }

    void aSpoiltFileMakesTheFragmentALostOne_data()
    {
        QTest::addColumn<QByteArray>("command"); // what spoils it; %1 is its path
        QTest::newRow("gone") << QByteArray("rm %1");
        QTest::newRow("empty") << QByteArray("truncate -s 0 %1");
        QTest::newRow("cut") << QByteArray("truncate -s -1 %1");
        QTest::newRow("longer") << QByteArray("truncate -s +1 %1");
        QTest::newRow("folder") << QByteArray("rm %1 && mkdir %1");
        QTest::newRow("pipe") << QByteArray("rm %1 && mkfifo %1");
        QTest::newRow("unreadable") << QByteArray("rm %1 && ln -s /proc/self/mem %1");
    }

    void aSpoiltFileMakesTheFragmentALostOne()
    {
        QFETCH(QByteArray, command);
        QFile file(m_folder->filePath(QStringLiteral("cached")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(hds::numberedFragment(2));
        file.close();
        const qint64 bytes = file.size();
        QCOMPARE(QProcess::execute(
                     QStringLiteral("sh"),
                     {QStringLiteral("-c"),
                      QString::fromLatin1(command).replace(QStringLiteral("%1"), file.fileName())}),
                 0);
        output()->SetFragContent(1, hds::numberedFragment(1));
        output()->SetFragFile(2, file.fileName(), bytes);
        output()->SetFragContent(3, hds::numberedFragment(3));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QCOMPARE(output()->LostFragment(), 2);
        QCOMPARE(output()->WriteFlvFile(), 0); // it is waited for
        output()->SetFragContent(2, hds::numberedFragment(2));
        QCOMPARE(output()->LostFragment(), 0);
        QCOMPARE(output()->WriteFlvFile(), 2);
        QCOMPARE(names(), (QByteArrayList{"a1", "v1", "a2", "v2", "a3", "v3"}));
    }

    void writingCanBeInterrupted()
    {
        int asked = 0;
        output()->SetGoOn([&asked] { return ++asked < 2; });
        for (int n = 1; n <= 5; ++n)
            output()->SetFragContent(n, hds::numberedFragment(n));
        QCOMPARE(output()->WriteFlvFile(), 2);
        QCOMPARE(output()->WriteFlvFile(), 1);
    }

    void progressLine()
    {
        const MessageCatcher catcher;
        output()->SetFragContent(1, hds::numberedFragment(1));
        output()->WriteFlvFile();
        output()->OutProgress();
        QCOMPARE(catcher.lines(), QStringList{QStringLiteral("\"downloaded:1/5\" ")});
    }

    void metadata_data()
    {
        QTest::addColumn<bool>("isWanted");
        QTest::addColumn<QByteArray>("metadata");
        QTest::addColumn<bool>("isWritten");
        QTest::newRow("some") << true << QByteArray("meta\0data", 9) << true;
        QTest::newRow("none") << true << QByteArray() << false;
        QTest::newRow("not wanted") << false << QByteArray("meta") << false;
        QTest::newRow("more than a tag holds") << true << QByteArray(0x1000000, 'x') << false;
        QTest::newRow("all that a tag holds") << true << QByteArray(0xFFFFFF, 'x') << true;
    }

    void metadata()
    {
        QFETCH(bool, isWanted);
        QFETCH(QByteArray, metadata);
        QFETCH(bool, isWritten);
        setOption("metadata", isWanted);
        CAdobeData::GetInstance()->SetMedia({{QStringLiteral("metadata"), metadata}});
        output()->SetFragContent(1, hds::fragment(hds::audioTag(500, "a")));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QString error;
        const auto tags = hds::readFlv(content(), error);
        QCOMPARE(error, QString());
        QCOMPARE(tags.size(), isWritten ? 2 : 1);
        if (isWritten) {
            QCOMPARE(tags.at(0).type, 18);
            QCOMPARE(tags.at(0).timestampMs, qint64(0));
            QVERIFY(tags.at(0).data == metadata);
        }
    }

    void aNameIsMadeWhenThereIsNone()
    {
        setOption("outFile", QString());
        setOption("manifest", QStringLiteral("http://h/m.f4m"));
        CAdobeData::GetInstance()->SetMedia({{QStringLiteral("url"), QStringLiteral("stream")}});
        const QString name = CAdobeData::GetInstance()->GetBaseFileName(0) + QStringLiteral(".flv");
        output()->SetFragContent(1, hds::numberedFragment(1));
        QCOMPARE(output()->WriteFlvFile(), 1);
        QCOMPARE(CAdobePreference::GetInstance()->GetOption(QStringLiteral("outFile")).toString(),
                 name);
        QVERIFY(content(name).startsWith("FLV"));
    }

    void aFileThatCannotBeWritten_data()
    {
        QTest::addColumn<QString>("target"); // of a link in the place of the file
        QTest::newRow("no such folder") << QStringLiteral("/nonexistent/folder/file");
        QTest::newRow("folder") << QStringLiteral("/");
        QTest::newRow("full") << QStringLiteral("/dev/full");
    }

    void aFileThatCannotBeWritten()
    {
        QFETCH(QString, target);
        QVERIFY(QFile::link(target, m_folder->filePath(QStringLiteral("out.flv"))));
        output()->SetFragContent(1, hds::numberedFragment(1));
        QCOMPARE(output()->WriteFlvFile(), -1);
        QCOMPARE(output()->WriteFlvFile(), -1);
        QCOMPARE(output()->GetWriteFragNum(), 0);
    }

    void verify_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<bool>("isValid");
        QTest::addColumn<QByteArray>("after");
        const QByteArray before = hds::box("afra", "1234");
        const QByteArray rest("tag");
        QTest::newRow("nothing") << QByteArray() << false << QByteArray();
        QTest::newRow("no mdat") << before << false << before;
        QTest::newRow("sound") << before + hds::box("mdat", rest) + before << true
                               << before + hds::box("mdat", rest) + before;
        QTest::newRow("sound, large")
            << before + hds::largeBox("mdat", rest) << true << before + hds::largeBox("mdat", rest);
        QTest::newRow("size 0") << before + QByteArray("\0\0\0\0mdat", 8) + rest << true
                                << before + hds::box("mdat", rest);
        QTest::newRow("empty box") << before + QByteArray("\0\0\0\x08mdat", 8) + rest << true
                                   << before + hds::box("mdat", rest);
        QTest::newRow("below its header") << before + QByteArray("\0\0\0\x05mdat", 8) + rest << true
                                          << before + hds::box("mdat", rest);
        QTest::newRow("past the end") << before + QByteArray("\0\0\0\xffmdat", 8) + rest << true
                                      << before + hds::box("mdat", rest);
        QTest::newRow("one past the end") << before + QByteArray("\0\0\0\x0cmdat", 8) + rest << true
                                          << before + hds::box("mdat", rest);
        QTest::newRow("large, past the end")
            << before + QByteArray("\0\0\0\x01mdat\xff\xff\xff\xff\0\0\0\0", 16) + rest << true
            << before + hds::largeBox("mdat", rest);
        QTest::newRow("large, size 0") << before + QByteArray("\0\0\0\x01mdat\0\0\0\0\0\0\0\0", 16)
                + rest << true << before + hds::largeBox("mdat", rest);
        QTest::newRow("large, below its header")
            << before + QByteArray("\0\0\0\x01mdat\0\0\0\0\0\0\0\x0f", 16) + rest << true
            << before + hds::largeBox("mdat", rest);
        QTest::newRow("large, the size reads as the type")
            << before + QByteArray("\0\0\0\x01mdat\0\0\0\x56mdat", 16) + rest << true
            << before + hds::largeBox("mdat", rest);
        QTest::newRow("a box before runs past the end")
            << QByteArray("\0\0\0\xffmoof", 8) + hds::box("mdat", rest) << false
            << QByteArray("\0\0\0\xffmoof", 8) + hds::box("mdat", rest);
        QTest::newRow("a box before is below its header")
            << QByteArray("\0\0\0\x02moof", 8) + hds::box("mdat", rest) << false
            << QByteArray("\0\0\0\x02moof", 8) + hds::box("mdat", rest);
        QTest::newRow("a box before of size 0")
            << QByteArray("\0\0\0\0moof", 8) + hds::box("mdat", rest) << true
            << QByteArray("\0\0\0\0moof", 8) + hds::box("mdat", rest);
    }

    void verify()
    {
        QFETCH(QByteArray, data);
        QFETCH(bool, isValid);
        QFETCH(QByteArray, after);
        const QByteArray before = data;
        QCOMPARE(CAdobeOutputFile::VerifyFragment(data), isValid);
        QCOMPARE(data, after);
        const bool isOpen = qstrncmp(QTest::currentDataTag(), "size 0", 6) == 0
            || qstrcmp(QTest::currentDataTag(), "empty box") == 0
            || qstrcmp(QTest::currentDataTag(), "large, size 0") == 0;
        QCOMPARE(CAdobeOutputFile::IsWhole(before), isValid && (before == after || isOpen));
    }

    void everyCutOfAFragmentKeepsTheWholeTags()
    {
        const QByteArray whole = hds::fragment(hds::audioTag(0, "one") + hds::videoTag(40, "two")
                                               + hds::audioTag(46, "three"));
        const int first = whole.indexOf("one") + 3;
        const int second = whole.indexOf("two") + 3;
        const int third = whole.indexOf("three") + 5;
        for (int size = 0; size <= whole.size(); ++size) {
            QByteArrayList expected;
            if (size >= first)
                expected += "one";
            if (size >= second)
                expected += "two";
            if (size >= third)
                expected += "three";
            QCOMPARE(decoded(QByteArray(whole.constData(), size)), expected);
        }
    }

    void tagsEndWithTheBox()
    {
        const QByteArray inside = hds::audioTag(0, "in");
        const QByteArray box = hds::box("mdat", inside);
        QCOMPARE(decoded(box + hds::audioTag(1, "out")), QByteArrayList{"in"});
        // A box too small for its last tag.
        QByteArray small = hds::box("mdat", inside + hds::audioTag(1, "cut"));
        small[3] = static_cast<char>(small.size() - 6);
        QCOMPARE(decoded(small), QByteArrayList{"in"});
    }

    void everyByteAtItsHighest()
    {
        const QByteArray whole = hds::numberedFragment(1);
        for (int i = 0; i < whole.size(); ++i) {
            QByteArray changed = whole;
            changed[i] = '\xff';
            QVERIFY(decoded(changed) != QByteArrayList{"not written"});
        }
    }

    void foreignTagsAreToldOnce()
    {
        QTest::ignoreMessage(QtWarningMsg,
                             "fragment 1: 2 tags are encrypted or of no known type and left out");
        const QByteArray junk = hds::tag(0x29, 0, "x");
        output()->SetFragContent(1, hds::fragment(junk + hds::audioTag(0, "a") + junk));
        output()->SetFragContent(2, hds::fragment(junk));
        QCOMPARE(output()->WriteFlvFile(), 2);
        QCOMPARE(names(), QByteArrayList{"a"});
    }

    void memoryOfAWrittenFragmentServesAgain()
    {
        const auto put = [](int number, int bytes) {
            output()->SetFragContent(number, hds::numberedFragment(number, bytes));
            return output()->WriteFlvFile();
        };
        QCOMPARE(output()->TakeSpare().capacity(), 0);
        QCOMPARE(put(1, 100000), 1);
        QVERIFY(output()->TakeSpare().capacity() >= 100000);
        QCOMPARE(output()->TakeSpare().capacity(), 0);
        QCOMPARE(put(2, 9000000), 1); // too much to be kept
        QCOMPARE(output()->TakeSpare().capacity(), 0);
        QCOMPARE(put(3, 100000), 1);
        output()->End();
        QCOMPARE(output()->TakeSpare().capacity(), 0);
    }

    void manyWrittenFragmentsLeaveLittleMemory()
    {
        CAdobeData::GetInstance()->SetFragCount(100);
        for (int n = 1; n <= 100; ++n)
            output()->SetFragContent(n, hds::numberedFragment(n));
        QCOMPARE(output()->WriteFlvFile(), 100);
        int spares = 0;
        while (output()->TakeSpare().capacity() > 0)
            ++spares;
        QVERIFY(spares > 0 && spares < 20);
    }

    void aNewRunForgetsTheOneBefore()
    {
        output()->SetFragContent(1, hds::numberedFragment(10));
        output()->SetFragContent(3, hds::numberedFragment(3));
        QCOMPARE(output()->WriteFlvFile(), 1);
        output()->Begin(1);
        QCOMPARE(output()->GetWriteFragNum(), 0);
        QCOMPARE(output()->HeldBytes(), qint64(0));
        output()->SetFragContent(1, hds::numberedFragment(1));
        output()->SetFragContent(2, hds::numberedFragment(2));
        QCOMPARE(output()->WriteFlvFile(), 2);
        QCOMPARE(names(), (QByteArrayList{"a1", "v1", "a2", "v2"}));
    }
};

CLIPWEIR_TEST_MAIN(tst_AdobeOutputFile)
#include "tst_adobeoutputfile.moc"
