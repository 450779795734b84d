#include "AdobeUtils.h"
#include "MessageCatcher.h"
#include "OutputFile.h"
#include "TestMain.h"

#include <QTemporaryDir>
#include <QTimer>

class tst_AdobeUtils : public QObject
{
    Q_OBJECT

private slots:
    void readersAreBigEndianAndUnsigned()
    {
        const QByteArray data("\x00\x81\x02\x03\x04\x05\x06\x07\xff", 9);
        QCOMPARE(CAdobeUtils::ReadByte(data, 8), 255U);
        QCOMPARE(CAdobeUtils::ReadInt24(data, 1), 0x810203U);
        QCOMPARE(CAdobeUtils::ReadInt32(data, 1), static_cast<int>(0x81020304U));
        QCOMPARE(CAdobeUtils::ReadInt64(data, 0), Q_INT64_C(0x0081020304050607));
        QCOMPARE(CAdobeUtils::ReadInt64(data, 1), static_cast<qint64>(0x81020304050607FFULL));
    }

    void hasBytesDoesNotWrap()
    {
        const QByteArray data(4, 'x');
        QVERIFY(CAdobeUtils::HasBytes(data, 0, 4));
        QVERIFY(CAdobeUtils::HasBytes(data, 4, 0));
        QVERIFY(!CAdobeUtils::HasBytes(data, 0, 5));
        QVERIFY(!CAdobeUtils::HasBytes(data, 5, 0));
        QVERIFY(!CAdobeUtils::HasBytes(data, 2, std::numeric_limits<quint64>::max()));
        QVERIFY(!CAdobeUtils::HasBytes(data, std::numeric_limits<quint64>::max(), 2));
    }

    void packetTimestamp_data()
    {
        QTest::addColumn<QByteArray>("field"); // 3 low bytes and the extension byte
        QTest::addColumn<int>("expected");
        QTest::newRow("zero") << QByteArray(4, '\0') << 0;
        QTest::newRow("low bits") << QByteArray("\x01\x02\x03\x00", 4) << 0x010203;
        QTest::newRow("extension") << QByteArray("\xff\xff\xff\x01", 4) << 0x01FFFFFF;
        QTest::newRow("highest") << QByteArray("\xff\xff\xff\x7f", 4) << 0x7FFFFFFF;
        QTest::newRow("bit 31 is cleared") << QByteArray("\x00\x00\x05\x80", 4) << 5;
        QTest::newRow("only bit 31 is cleared") << QByteArray("\xff\xff\xff\xff", 4) << 0x7FFFFFFF;
    }

    void packetTimestamp()
    {
        QFETCH(QByteArray, field);
        QFETCH(int, expected);
        const QByteArray data = "??" + QByteArray(4, 'h') + field;
        QCOMPARE(CAdobeUtils::ReadPacketTS(data, 2), expected);
    }

    void readString()
    {
        const QByteArray data("ab\0\0cd", 6);
        unsigned int pos = 0;
        QCOMPARE(CAdobeUtils::ReadString(data, pos), QByteArray("ab"));
        QCOMPARE(pos, 3U);
        QCOMPARE(CAdobeUtils::ReadString(data, pos), QByteArray());
        QCOMPARE(pos, 4U);
        QCOMPARE(CAdobeUtils::ReadString(data, pos), QByteArray("cd")); // no zero byte follows
        QCOMPARE(pos, 7U);
        QCOMPARE(CAdobeUtils::ReadString(data, pos), QByteArray());
        QCOMPARE(pos, 7U);
    }

    void byteArraySubstring()
    {
        const QByteArray data("abcd");
        QCOMPARE(CAdobeUtils::ByteArraySubstring(data, 1, 2), QByteArray("bc"));
        QCOMPARE(CAdobeUtils::ByteArraySubstring(data, 3, 9), QByteArray("d"));
        QVERIFY(CAdobeUtils::ByteArraySubstring(data, 4, 1).isEmpty());
        QVERIFY(CAdobeUtils::ByteArraySubstring(data, 0xFFFFFFFFU, 1).isEmpty());
        QVERIFY(CAdobeUtils::ByteArraySubstring(data, 0, 0).isEmpty());
        QVERIFY(CAdobeUtils::ByteArraySubstring(data, 0, -1).isEmpty());
    }

    void boxHeader_data()
    {
        QTest::addColumn<QByteArray>("header");
        QTest::addColumn<quint64>("size");
        QTest::addColumn<int>("bytes");
        QTest::newRow("compact") << QByteArray("\0\0\0\x0amdat", 8) << quint64(2) << 8;
        QTest::newRow("empty") << QByteArray("\0\0\0\x08mdat", 8) << quint64(0) << 8;
        QTest::newRow("open end") << QByteArray("\0\0\0\0mdat", 8) << quint64(0) << 8;
        QTest::newRow("below its header wraps")
            << QByteArray("\0\0\0\x04mdat", 8) << ~quint64(0) - 3 << 8;
        QTest::newRow("large") << QByteArray("\0\0\0\x01mdat\0\0\0\x02\0\0\0\x10", 16)
                               << (quint64(2) << 32) << 16;
    }

    void boxHeader()
    {
        QFETCH(QByteArray, header);
        QFETCH(quint64, size);
        QFETCH(int, bytes);
        unsigned int pos = 1;
        QByteArray type;
        unsigned long long readSize = 0;
        CAdobeUtils::ReadBoxHeader('x' + header, pos, type, readSize);
        QCOMPARE(type, QByteArray("mdat"));
        QCOMPARE(readSize, static_cast<unsigned long long>(size));
        QCOMPARE(pos, static_cast<unsigned int>(1 + bytes));
    }

    void writers()
    {
        QByteArray data("abc");
        CAdobeUtils::WriteByte(data, 1, -1);
        QCOMPARE(data,
                 QByteArray("a\xff"
                            "c"));
        CAdobeUtils::WriteInt24(data, 0, 0x010203);
        QCOMPARE(data, QByteArray("\x01\x02\x03"));
        CAdobeUtils::WriteInt32(data, 5, -2);
        QCOMPARE(data.size(), 9);
        QCOMPARE(data.mid(5), QByteArray("\xff\xff\xff\xfe"));
        CAdobeUtils::WriteInt24(data, 8, 1);
        QCOMPARE(data.size(), 11);
        CAdobeUtils::WriteByte(data, 11, 7);
        QCOMPARE(data.right(1), QByteArray("\x07"));
    }

    void flvTimestampRoundTrip()
    {
        QByteArray data(11, '\0');
        for (const int timestampMs : {0, 0xFFFFFF, 0x1000000, 0x7FFFFFFF}) {
            CAdobeUtils::WriteFlvTimestamp(data, 0, timestampMs);
            QCOMPARE(CAdobeUtils::ReadPacketTS(data, 0), timestampMs);
        }
    }

    void boxSize()
    {
        QByteArray compact("\0\0\0\0mdatxx", 10);
        CAdobeUtils::WriteBoxSize(compact, 8, "mdat", 0x10000000AULL);
        QCOMPARE(compact, QByteArray("\0\0\0\x0amdatxx", 10));
        QByteArray large("\0\0\0\x01mdat\xff\xff\xff\xff\xff\xff\xff\xffxx", 18);
        CAdobeUtils::WriteBoxSize(large, 16, "mdat", 18);
        QCOMPARE(large, QByteArray("\0\0\0\x01mdat\0\0\0\0\0\0\0\x12xx", 18));
    }

    void files()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("f"));
        QVERIFY(CAdobeUtils::ReadFileContent(path).isEmpty());
        QVERIFY(CAdobeUtils::WriteFileContent(path, "one", true));
        QVERIFY(CAdobeUtils::WriteFileContent(path, "two", true));
        QCOMPARE(CAdobeUtils::ReadFileContent(path), QByteArray("onetwo"));
        QVERIFY(CAdobeUtils::WriteFileContent(path, "three", false));
        QCOMPARE(CAdobeUtils::ReadFileContent(path), QByteArray("three"));
        QVERIFY(OutputFile::isInPlace(path, 5));
        QVERIFY(!OutputFile::isInPlace(path, 6));
        QVERIFY(!OutputFile::isInPlace(folder.path(), 0));
        const QString nowhere = folder.filePath(QStringLiteral("no/f"));
        QVERIFY(!CAdobeUtils::WriteFileContent(nowhere, "x", false));
        QVERIFY(!CAdobeUtils::WriteFileContent(nowhere, "x", true));
        QVERIFY(!OutputFile::isInPlace(nowhere, 0));
    }

    void waitForASignal()
    {
        QTimer timer;
        timer.setSingleShot(true);
        timer.start(1);
        CAdobeUtils::WaitFor(&timer, SIGNAL(timeout()));
        QVERIFY(!timer.isActive());
    }

    void waitEndsWithTheSender()
    {
        auto *timer = new QTimer(this);
        timer->start(100000);
        timer->deleteLater();
        CAdobeUtils::WaitFor(timer, SIGNAL(timeout()));
    }

    void xpath()
    {
        const QString xml = QStringLiteral("<a><b c='1'>x</b><b c='2'>y</b></a>");
        QCOMPARE(CAdobeUtils::execxPathQuery(xml, QStringLiteral("//b/string()")),
                 (QStringList{QStringLiteral("x"), QStringLiteral("y")}));
        QCOMPARE(CAdobeUtils::GetXPathString(xml, QStringLiteral("//b[2]/@c/string()")),
                 QStringLiteral("2"));
        QVERIFY(CAdobeUtils::execxPathQuery(xml, QStringLiteral("//z/string()")).isEmpty());
        QVERIFY(CAdobeUtils::execxPathQuery(xml, QStringLiteral("//[")).isEmpty());
        QVERIFY(CAdobeUtils::GetXPathString(xml, QStringLiteral("//z/string()")).isEmpty());
    }

    void domHelpers()
    {
        const QDomDocument document = CAdobeUtils::loadXmlFile(
            QStringLiteral("<a k='v' m='w'><b c='1'>x</b><d/><b c='2'>y</b></a>"));
        const QDomElement root = document.documentElement();
        QCOMPARE(
            CAdobeUtils::GetChildNodeList(root, QStringLiteral("b"), QString(), QString()).size(),
            2);
        const auto second = CAdobeUtils::GetChildNodeList(root, QStringLiteral("b"),
                                                          QStringLiteral("c"), QStringLiteral("2"));
        QCOMPARE(second.size(), 1);
        QCOMPARE(second.constFirst().text(), QStringLiteral("y"));
        QCOMPARE(CAdobeUtils::GetXmlSubNodeString(root, QStringLiteral("b")), QStringLiteral("x"));
        QVERIFY(CAdobeUtils::GetXmlSubNodeString(root, QStringLiteral("z")).isEmpty());
        const auto attributes = CAdobeUtils::GetNodeAttriMap(root);
        QCOMPARE(attributes.size(), 2);
        QCOMPARE(attributes.value(QStringLiteral("m")), QStringLiteral("w"));
    }

    void brokenXmlIsReported()
    {
        const MessageCatcher catcher;
        QVERIFY(CAdobeUtils::loadXmlFile(QStringLiteral("<a>\n<b></a>")).isNull());
        QCOMPARE(catcher.lines().size(), 1);
        QVERIFY(catcher.lines().constFirst().startsWith(
            QLatin1String("Error:Parse error at line: 2 column ")));
    }

    void regularExpressions()
    {
        const QString text = QStringLiteral("a1 b22 c333");
        QCOMPARE(CAdobeUtils::RegexString(text, QStringLiteral("[bc](\\d+)")),
                 QStringLiteral("22"));
        QVERIFY(CAdobeUtils::RegexString(text, QStringLiteral("B(\\d+)")).isEmpty());
        QCOMPARE(CAdobeUtils::RegexString2(text, QStringLiteral("%1(\\d+)"), QStringLiteral("c")),
                 QStringLiteral("333"));
        QCOMPARE(CAdobeUtils::RegexStringList(QStringLiteral("[abc](\\d+)"), text),
                 (QStringList{QStringLiteral("1"), QStringLiteral("22"), QStringLiteral("333")}));
        // A pattern that matches nothing at all must come to an end.
        QCOMPARE(CAdobeUtils::RegexStringList(QStringLiteral("(x*)"), QStringLiteral("ab")).size(),
                 3);
    }

    void hexadecimal_data()
    {
        QTest::addColumn<QString>("hex");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("empty") << QString() << QByteArray();
        QTest::newRow("pairs") << QStringLiteral("464c56fF") << QByteArray("FLV\xff");
        QTest::newRow("odd last digit") << QStringLiteral("01a") << QByteArray("\x01\x0a");
        QTest::newRow("no digit") << QStringLiteral("46zz56") << QByteArray();
        QTest::newRow("half a digit") << QStringLiteral("464g") << QByteArray();
    }

    void hexadecimal()
    {
        QFETCH(QString, hex);
        QFETCH(QByteArray, expected);
        QCOMPARE(CAdobeUtils::QStringToHex(hex), expected);
    }

    void md5()
    {
        QCOMPARE(CAdobeUtils::GetMD5String(QStringLiteral("abc")),
                 QStringLiteral("900150983CD24FB0D6963F7D28E17F72"));
        QCOMPARE(CAdobeUtils::GetMD5String(QString::fromUtf8("\xc3\xa9")),
                 QStringLiteral("66DDCD97CFDEABB2F6FB8A999B4BC76F"));
    }

    void removeExtension_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain") << QStringLiteral("movie.f4v") << QStringLiteral("movie");
        QTest::newRow("first of two") << QStringLiteral("a.b.flv") << QStringLiteral("a");
        QTest::newRow("none") << QStringLiteral("movie") << QStringLiteral("movie");
        QTest::newRow("at the start") << QStringLiteral(".flv") << QStringLiteral(".flv");
        QTest::newRow("long") << QStringLiteral("a.stream") << QStringLiteral("a");
        QTest::newRow("dot at the end") << QStringLiteral("a.") << QStringLiteral("a.");
    }

    void removeExtension()
    {
        QFETCH(QString, name);
        QFETCH(QString, expected);
        QCOMPARE(CAdobeUtils::RemoveExtension(name), expected);
    }

    void baseUrl_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("expected");
        QTest::newRow("file") << QStringLiteral("http://h/a/b.f4m")
                              << QStringLiteral("http://h/a/");
        QTest::newRow("query") << QStringLiteral("http://h/a/b.f4m?u=/x/y")
                               << QStringLiteral("http://h/a/");
        QTest::newRow("folder") << QStringLiteral("http://h/a/") << QStringLiteral("http://h/a/");
        QTest::newRow("no slash") << QStringLiteral("name?q") << QStringLiteral("name");
        QTest::newRow("slash at 0") << QStringLiteral("/name?q") << QStringLiteral("/name");
        QTest::newRow("query at 0") << QStringLiteral("?a/b") << QStringLiteral("?a/");
        QTest::newRow("empty") << QString() << QString();
    }

    void baseUrl()
    {
        QFETCH(QString, url);
        QFETCH(QString, expected);
        QCOMPARE(CAdobeUtils::GetBaseUrl(url), expected);
    }

    void normalizePath_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("expected");
        QTest::newRow("absolute") << QStringLiteral("http://h/a/../b")
                                  << QStringLiteral("http://h/a/b");
        QTest::newRow("every one goes")
            << QStringLiteral("http://h/../../a/..") << QStringLiteral("http://h/a");
        QTest::newRow("single dots stay")
            << QStringLiteral("http://h/./a") << QStringLiteral("http://h/./a");
        QTest::newRow("no scheme")
            << QStringLiteral("//h/a/../b") << QStringLiteral("http://h/a/b");
        QTest::newRow("from the root") << QStringLiteral("/h/a") << QStringLiteral("http://h/a");
        QTest::newRow("relative") << QStringLiteral("a/b/../c") << QString();
        QTest::newRow("empty") << QString() << QString();
    }

    void normalizePath()
    {
        QFETCH(QString, url);
        QFETCH(QString, expected);
        QCOMPARE(CAdobeUtils::NormalizePath(url), expected);
    }

    void joinUrl()
    {
        const QString base = QStringLiteral("http://h/a/b/");
        QCOMPARE(CAdobeUtils::JoinUrl(base, QStringLiteral("../c")),
                 QStringLiteral("http://h/a/c"));
        QCOMPARE(CAdobeUtils::JoinUrl(base, QStringLiteral("/c")), QStringLiteral("http://h/c"));
        QCOMPARE(CAdobeUtils::JoinUrl(base, QStringLiteral("https://x/../c")),
                 QStringLiteral("https://x/../c"));
    }

    void variantLists()
    {
        const QVariantList list{QVariantMap{{QStringLiteral("k"), 1}, {QStringLiteral("v"), 10}},
                                QVariantMap{{QStringLiteral("k"), 2}, {QStringLiteral("v"), 20}}};
        const QString key = QStringLiteral("k");
        QVERIFY(CAdobeUtils::in_array_field(list, key, 2, true));
        QVERIFY(CAdobeUtils::in_array_field(list, key, QStringLiteral("2"), false));
        QVERIFY(!CAdobeUtils::in_array_field(list, key, QStringLiteral("2"), true));
        QVERIFY(!CAdobeUtils::in_array_field(list, key, 3, false));
        QCOMPARE(CAdobeUtils::value_in_array_field(list, key, QStringLiteral("v"), 2, true),
                 QVariant(20));
        QVERIFY(
            !CAdobeUtils::value_in_array_field(list, key, QStringLiteral("v"), 3, true).isValid());
    }
};

CLIPWEIR_TEST_MAIN(tst_AdobeUtils)
#include "tst_adobeutils.moc"
