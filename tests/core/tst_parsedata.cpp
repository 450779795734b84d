#include "ParseData.h"
#include "TestFiles.h"
#include "TestMain.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString mp4Address = QStringLiteral("http://h/a.mp4");

ParseData titled(const QString &title, const QString &address = mp4Address)
{
    ParseData data;
    data.pageSource = QStringLiteral("<title>") + title + QStringLiteral("</title>");
    data.add(address);
    data.selectedVideo = 0;
    return data;
}

/// JSON is easier to read here with single quotes.
QByteArray json(const char *text)
{
    return QByteArray(text).replace('\'', '"');
}

const QString clapper = QString::fromUtf8("\xf0\x9f\x8e\xac"); // 4 bytes in UTF-8, 2 units
const QString han = QString::fromUtf8("\xe4\xb8\xad"); // 3 bytes, 1 unit

} // namespace

class tst_ParseData : public QObject
{
    Q_OBJECT

private slots:
    void init() { setArguments({}); }

    void beginsEmpty()
    {
        const ParseData data;
        QCOMPARE(data.selectedVideo, -1);
        QVERIFY(!data.pageFlag);
        QVERIFY(!data.succeeded);
        QVERIFY(data.startTime.isNull());
        QVERIFY(data.endTime.isNull());
        QVERIFY(!data.isPlayList());
        QCOMPARE(data.getThumbUrl(), QString());
        QCOMPARE(data.getHtmlTitle(), QString());
        QCOMPARE(data.getCanonicalUrl(), QString());
        QCOMPARE(data.getSmartVideoFullPath(), QString());
    }

    void addedFile_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("type");
        QTest::addColumn<QString>("format");
        QTest::newRow("http") << "http://h/a.mp4"
                              << "http"
                              << "mp4";
        QTest::newRow("https with query") << "https://h/a.flv?x=1"
                                          << "http"
                                          << "flv";
        QTest::newRow("rtmp") << "rtmp://h/a.flv"
                              << "rtmp"
                              << "flv";
        QTest::newRow("rtmpe") << "rtmpe://h/a"
                               << "rtmp"
                               << "";
        QTest::newRow("upper-case RTMP is typed http") << "RTMP://h/a.mp4"
                                                       << "http"
                                                       << "mp4";
        QTest::newRow("no extension") << "http://h/a"
                                      << "http"
                                      << "";
        QTest::newRow("empty") << ""
                               << "http"
                               << "";
    }

    void addedFile()
    {
        QFETCH(QString, address);
        QFETCH(QString, type);
        QFETCH(QString, format);
        ParseData data;
        QVERIFY(data.add(address));
        QCOMPARE(data.fileList.size(), 1);
        const VideoFile &file = data.fileList.constFirst();
        QCOMPARE(file.urlType, type);
        QCOMPARE(file.urls, (QMap<QString, QString>{{type, address}}));
        QCOMPARE(file.address(), address);
        QCOMPARE(file.strFormat, format);
        QCOMPARE(file.contentType, QString());
        QCOMPARE(file.width + file.height + file.duration, 0);
        QCOMPARE(file.nSize, qint64(0));
    }

    void anAddressIsAddedOnce()
    {
        ParseData data;
        QVERIFY(data.add(mp4Address));
        QVERIFY(!data.add(mp4Address));
        QCOMPARE(data.fileList.size(), 1);
    }

    void addressesAreComparedExactly()
    {
        ParseData data;
        for (const char *address : {"http://h/a", "http://H/a", "http://h/a/", "http://h/%61"})
            QVERIFY2(data.add(QLatin1String(address)), address);
        QCOMPARE(data.fileList.size(), 4);
        QCOMPARE(data.fileList.at(1).address(), QStringLiteral("http://H/a"));
        QVERIFY(!data.contains(QStringLiteral("http://h/A")));
    }

    void getPointsIntoTheList()
    {
        ParseData data;
        data.add(QStringLiteral("http://h/1"));
        data.add(QStringLiteral("http://h/2"));
        QVERIFY(!data.get(QStringLiteral("http://h/3")));
        VideoFile *const file = data.get(QStringLiteral("http://h/2"));
        QVERIFY(file);
        file->contentType = QStringLiteral("video/mp4");
        QCOMPARE(data.fileList.at(1).contentType, QStringLiteral("video/mp4"));
    }

    void aFileWithoutItsTypeHasAnEmptyAddress()
    {
        ParseData data;
        VideoFile file;
        file.urlType = QStringLiteral("http");
        file.urls.insert(QStringLiteral("rtmp"), mp4Address);
        data.fileList += file;
        QVERIFY(!data.contains(mp4Address));
        QVERIFY(data.contains(QString()));
        QCOMPARE(data.get(QString()), &data.fileList.first());
    }

    void aKnownSizeIsNotOverwritten()
    {
        ParseData data;
        data.add(mp4Address);
        data.setVideoSize(QStringLiteral("http://h/other"), 5);
        QCOMPARE(data.fileList.constFirst().nSize, qint64(0));
        data.setVideoSize(mp4Address, 7);
        QCOMPARE(data.fileList.constFirst().nSize, qint64(7));
        data.setVideoSize(mp4Address, 9);
        QCOMPARE(data.fileList.constFirst().nSize, qint64(7));
    }

    void aSizeGoesToTheFirstEntryThatLacksOne()
    {
        ParseData data;
        data.fromJson(
            json("{'fileList':[{'urlType':'http','videoUrl':'u','nSize':3},"
                 "{'urlType':'http','videoUrl':'u'},{'urlType':'http','videoUrl':'u'}]}"));
        data.setVideoSize(QStringLiteral("u"), 8);
        QCOMPARE(data.fileList.at(0).nSize, qint64(3));
        QCOMPARE(data.fileList.at(1).nSize, qint64(8));
        QCOMPARE(data.fileList.at(2).nSize, qint64(0));
    }

    void isPlayListAsksForFiles()
    {
        ParseData data;
        data.playList += mp4Address;
        QVERIFY(!data.isPlayList());
        data.playList.clear();
        data.add(mp4Address);
        QVERIFY(data.isPlayList());
    }

    void timeUsed_data()
    {
        const QDateTime start = QDateTime::fromMSecsSinceEpoch(1000000000000);
        QTest::addColumn<QDateTime>("start");
        QTest::addColumn<QDateTime>("end");
        QTest::addColumn<int>("seconds");
        QTest::newRow("neither") << QDateTime() << QDateTime() << 0;
        QTest::newRow("no start") << QDateTime() << start << 0;
        QTest::newRow("no end") << start << QDateTime() << 0;
        QTest::newRow("whole seconds only") << start << start.addMSecs(2999) << 2;
        QTest::newRow("negative") << start << start.addSecs(-5) << -5;
    }

    void timeUsed()
    {
        ParseData data;
        QFETCH(QDateTime, start);
        QFETCH(QDateTime, end);
        data.startTime = start;
        data.endTime = end;
        QTEST(data.getTimeUsed(), "seconds");
    }

    void valuesFromThePageSource()
    {
        ParseData data;
        data.pageSource =
            QStringLiteral("<title>A &amp; B</title>\n"
                           "<meta property=\"og:image\" content=\"http://h/t%20.jpg\">\n"
                           "<link rel=\"canonical\" href=\"http://h/page\">");
        QCOMPARE(data.getHtmlTitle(), QStringLiteral("A & B"));
        QCOMPARE(data.getThumbUrl(), QStringLiteral("http://h/t .jpg"));
        QCOMPARE(data.getCanonicalUrl(), QStringLiteral("http://h/page"));
    }

    void canonicalAddress_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("address");
        QTest::newRow("single quotes") << "<link rel='canonical' href='u'>"
                                       << "u";
        QTest::newRow("line break between") << "\"canonical\"\n href=\"u\""
                                            << "u";
        QTest::newRow("href first") << "<link href=\"u\" rel=\"canonical\">"
                                    << "";
        QTest::newRow("no quotes") << "<link rel=canonical href=u>"
                                   << "";
        QTest::newRow("the first of two") << "\"canonical\" href=\"1\" \"canonical\" href=\"2\""
                                          << "1";
    }

    void canonicalAddress()
    {
        ParseData data;
        QFETCH(QString, source);
        data.pageSource = source;
        QTEST(data.getCanonicalUrl(), "address");
    }

    void smartPath_data()
    {
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("name");
        const QString flv = QStringLiteral("http://h/a.flv");
        const QString bare = QStringLiteral("http://h/a");
        QTest::newRow("plain") << "A film" << mp4Address << "A film.mp4";
        QTest::newRow("the file's format") << "A film" << flv << "A film.flv";
        QTest::newRow("no format") << "A film" << bare << "A film.mp4";
        QTest::newRow("no title") << "" << mp4Address << "";
        QTest::newRow("path characters") << "a/b\\c*d?e!f" << flv << "a_b_c_d_e_f.flv";
        QTest::newRow("NUL") << QString(QStringLiteral("a") + QChar(0) + QStringLiteral("b")) << flv
                             << "a_b.flv";
        QTest::newRow("place markers stay text")
            << "100%1 of %2 %3 %L1" << flv << "100%1 of %2 %3 %L1.flv";
        QTest::newRow("climbing out is defused") << "../../x" << flv << ".._.._x.flv";
    }

    void smartPath()
    {
        QFETCH(QString, title);
        QFETCH(QString, address);
        QFETCH(QString, name);
        const TemporaryWorkFolder work;
        const ParseData data = titled(title, address);
        QCOMPARE(data.getSmartVideoFullPath(),
                 name.isEmpty() ? QString() : work.path(QStringLiteral("tmp/") + name));
    }

    void smartPathNeedsAChosenFile()
    {
        ParseData data = titled(QStringLiteral("A film"));
        data.selectedVideo = -1;
        QCOMPARE(data.getSmartVideoFullPath(), QString());
    }

    void overlongNamesAreCutBetweenCharacters_data()
    {
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("stem"); // with ".flv" at most 255 bytes: 251 for the name
        const QString a = QStringLiteral("a");
        QTest::newRow("longest") << a.repeated(251) << a.repeated(251);
        QTest::newRow("one above") << a.repeated(252) << a.repeated(251);
        QTest::newRow("much longer") << a.repeated(100000) << a.repeated(251);
        QTest::newRow("three-byte characters fit") << han.repeated(83) << han.repeated(83);
        QTest::newRow("three-byte characters") << han.repeated(84) << han.repeated(83);
        QTest::newRow("cut would be inside")
            << QString(a + han.repeated(84)) << QString(a + han.repeated(83));
        QTest::newRow("pairs") << clapper.repeated(200) << clapper.repeated(62);
        QTest::newRow("pairs after one")
            << QString(a + clapper.repeated(200)) << QString(a + clapper.repeated(62));
        QTest::newRow("pairs after three") << QString(a.repeated(3) + clapper.repeated(63))
                                           << QString(a.repeated(3) + clapper.repeated(62));
        QTest::newRow("a pair at the very end")
            << QString(a.repeated(247) + clapper) << QString(a.repeated(247) + clapper);
        QTest::newRow("a pair one byte too far")
            << QString(a.repeated(248) + clapper) << a.repeated(248);
        QTest::newRow("a pair across the first cut")
            << QString(a.repeated(250) + clapper) << a.repeated(250);
    }

    void overlongNamesAreCutBetweenCharacters()
    {
        QFETCH(QString, title);
        QFETCH(QString, stem);
        const TemporaryWorkFolder work;
        const QString path =
            titled(title, QStringLiteral("http://h/a.flv")).getSmartVideoFullPath();
        QCOMPARE(path, work.path(QStringLiteral("tmp/") + stem + QStringLiteral(".flv")));
        QFile file(path);
        QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(file.errorString()));
    }

    void videoPath_data()
    {
        QTest::addColumn<QString>("flags");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("path");
        const QString byMd5 = QStringLiteral("tmp/D2E30D023BACB13655CF2F69855DDD49.mp4");
        QTest::newRow("by address") << ""
                                    << "T" << byMd5;
        QTest::newRow("by title") << "--smartname"
                                  << "T"
                                  << "tmp/T.mp4";
        QTest::newRow("no title to use") << "--smartname"
                                         << "" << byMd5;
        QTest::newRow("as told") << "--smartname --saveto x/v.avi"
                                 << "T"
                                 << "x/v.avi";
    }

    void videoPath()
    {
        QFETCH(QString, flags);
        QFETCH(QString, title);
        QFETCH(QString, path);
        const TemporaryWorkFolder work;
        setCommandLine(QStringLiteral("--url http://a/ ") + flags);
        const QString result = titled(title).getVideoFullPath();
        QCOMPARE(result, path.startsWith(QLatin1String("tmp")) ? work.path(path) : path);
    }

    void jsonOfAnEmptyRecord()
    {
        const QByteArray expected = json("{'fileList':[],'playList':[],'selectedVideo':-1,"
                                         "'thumbUrl':'','title':''}");
        QCOMPARE(ParseData().toJson(), expected);
    }

    void jsonIsExactAndCompact()
    {
        ParseData data;
        data.pageSource = QStringLiteral("<title>\"A\"\nB</title> og:image x http://h/t.jpg\"");
        data.playList = QStringList{QStringLiteral("http://h/1"), QStringLiteral("http://h/2")};
        data.add(mp4Address);
        data.add(QStringLiteral("rtmp://h/b"));
        data.selectedVideo = 1;
        VideoFile *const file = data.get(mp4Address);
        file->width = 1280;
        file->height = 720;
        file->duration = 60;
        file->contentType = QStringLiteral("video/mp4");
        file->nSize = 9007199254740993; // no double holds it
        const QByteArray expected =
            json("{'fileList':["
                 "{'height':720,'nSize':9007199254740993,'strFormat':'mp4',"
                 "'urlType':'http','videoUrl':'http://h/a.mp4','width':1280},"
                 "{'height':0,'nSize':0,'strFormat':'','urlType':'rtmp',"
                 "'videoUrl':'rtmp://h/b','width':0}],"
                 "'playList':['http://h/1','http://h/2'],'selectedVideo':1,"
                 "'thumbUrl':'http://h/t.jpg','title':'\\'A\\'\\nB'}");
        QCOMPARE(data.toJson(), expected);
    }

    void jsonStaysOneLineOfUtf8_data()
    {
        QTest::addColumn<QString>("title");
        QTest::newRow("line breaks") << "a\r\nb\nc";
        QTest::newRow("control characters") << QString(QStringLiteral("a\t\x1b") + QChar(0));
        QTest::newRow("beyond the plane") << QString(han + clapper);
        QTest::newRow("quotes and backslashes") << "\\\"\\n\"";
    }

    void jsonStaysOneLineOfUtf8()
    {
        QFETCH(QString, title);
        const QByteArray document = titled(title).toJson();
        QVERIFY(!document.contains('\n') && !document.contains('\r') && !document.contains('\0'));
        QJsonParseError error{};
        const QJsonObject root = QJsonDocument::fromJson(document, &error).object();
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(root.value(QStringLiteral("title")).toString(), title);
    }

    void jsonTakesHalfACharacter()
    {
        const QByteArray document = titled(QStringLiteral("a") + QChar(0xd83c)).toJson();
        QVERIFY(!QJsonDocument::fromJson(document).isNull());
    }

    void roundTrip()
    {
        ParseData data = titled(QStringLiteral("T"));
        data.playList += QStringLiteral("http://h/p");
        VideoFile &file = data.fileList.first();
        file.width = 640;
        file.height = 480;
        file.duration = 9;
        file.contentType = QStringLiteral("video/mp4");
        file.nSize = std::numeric_limits<qint64>::max();

        ParseData copy;
        copy.fromJson(data.toJson());
        QCOMPARE(copy.playList, data.playList);
        QCOMPARE(copy.fileList.size(), 1);
        const VideoFile &read = copy.fileList.constFirst();
        QCOMPARE(read.urls, file.urls);
        QCOMPARE(read.urlType, file.urlType);
        QCOMPARE(read.strFormat, file.strFormat);
        QCOMPARE(read.width, 640);
        QCOMPARE(read.height, 480);
        QCOMPARE(read.nSize, file.nSize);
        QCOMPARE(read.duration, 0); // not part of the document
        QCOMPARE(read.contentType, QString());
        QCOMPARE(copy.selectedVideo, -1); // not read back
        QCOMPARE(copy.getHtmlTitle(), QString());
    }

    void roundTripOfAnEmptyRecord()
    {
        ParseData copy;
        copy.fromJson(ParseData().toJson());
        QVERIFY(copy.playList.isEmpty());
        QVERIFY(copy.fileList.isEmpty());
    }

    void readingAppendsAndKeepsTheSelection()
    {
        ParseData data = titled(QStringLiteral("T"));
        data.playList += QStringLiteral("p");
        data.selectedVideo = 5;
        const QByteArray document = data.toJson();
        data.fromJson(document);
        QCOMPARE(data.playList.size(), 2);
        QCOMPARE(data.fileList.size(), 2); // without the test for duplicates
        QCOMPARE(data.selectedVideo, 5);
    }

    void unusualDocuments_data()
    {
        QTest::addColumn<QByteArray>("document");
        QTest::addColumn<int>("pages");
        QTest::addColumn<int>("files");
        QTest::newRow("empty") << QByteArray() << 0 << 0;
        QTest::newRow("no JSON") << QByteArray("<html>") << 0 << 0;
        QTest::newRow("cut") << json("{'playList':['a'") << 0 << 0;
        QTest::newRow("text after it") << json("{'playList':['a']} x") << 0 << 0;
        QTest::newRow("an array") << json("[{'playList':['a']}]") << 0 << 0;
        QTest::newRow("lists of another type")
            << json("{'playList':'a','fileList':{'a':1}}") << 0 << 0;
        QTest::newRow("elements of another type")
            << json("{'playList':[1,null,[]],'fileList':[7,null,'x']}") << 3 << 3;
        QTest::newRow("not UTF-8") << QByteArray("{\"playList\":[\"\xff\xfe\"]}") << 0 << 0;
        QTest::newRow("deep nesting") << json("{'fileList':") + QByteArray(1000000, '[') << 0 << 0;
        QTest::newRow("deep and closed")
            << json("{'playList':") + QByteArray(100000, '[') + QByteArray(100000, ']') + '}' << 0
            << 0;
    }

    void unusualDocuments()
    {
        QFETCH(QByteArray, document);
        ParseData data;
        data.fromJson(document);
        QTEST(data.playList.size(), "pages");
        QTEST(data.fileList.size(), "files");
    }

    void aDocumentCutAtAnyByteYieldsNothing()
    {
        ParseData data = titled(QStringLiteral("T"));
        data.playList += QStringLiteral("p");
        const QByteArray document = data.toJson();
        for (int size = 0; size < document.size(); ++size) {
            ParseData copy;
            copy.fromJson(document.left(size));
            QVERIFY2(copy.fileList.isEmpty() && copy.playList.isEmpty(), document.left(size));
        }
    }

    void missingAndOddFields()
    {
        ParseData data;
        data.fromJson(json("{'fileList':[{'videoUrl':'u','nSize':'12','height':'x','width':1e99},"
                           "{'urlType':'rtmp'}]}"));
        QCOMPARE(data.fileList.size(), 2);
        const VideoFile &file = data.fileList.constFirst();
        QCOMPARE(file.urlType, QString());
        QCOMPARE(file.address(), QStringLiteral("u"));
        QCOMPARE(file.nSize, qint64(12));
        QCOMPARE(file.height, 0);
        QCOMPARE(data.fileList.at(1).urlType, QStringLiteral("rtmp"));
        QCOMPARE(data.fileList.at(1).address(), QString());
    }

    void copiesAreIndependent()
    {
        ParseData data = titled(QStringLiteral("T"));
        data.pageFlag = true;
        data.succeeded = true;
        const ParseData copy = data;
        data.add(QStringLiteral("http://h/b"));
        data.fileList.first().nSize = 5;
        QCOMPARE(copy.fileList.size(), 1);
        QCOMPARE(copy.fileList.constFirst().nSize, qint64(0));
        QVERIFY(copy.pageFlag && copy.succeeded);
    }

    void remove()
    {
        ParseData data;
        for (const char *const address : {"http://h/a", "http://h/b", "http://h/c"})
            data.add(QString::fromLatin1(address));
        data.remove(
            [](const VideoFile &file) { return file.address().endsWith(QLatin1Char('b')); });
        QCOMPARE(data.fileList.size(), 2);
        QVERIFY(!data.contains(QStringLiteral("http://h/b")));
        QCOMPARE(data.fileList.at(1).address(), QStringLiteral("http://h/c"));
    }
};

CLIPWEIR_TEST_MAIN(tst_ParseData)
#include "tst_parsedata.moc"
