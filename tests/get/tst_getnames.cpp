#include "NameTemplate.h"
#include "SafeText.h"
#include "TestFiles.h"
#include "TestMain.h"

namespace {

PageFacts pageOf(const QString &title)
{
    PageFacts page;
    page.address = QStringLiteral("https://www.example.com/watch/clip.html?v=1");
    page.title = title;
    page.height = 720;
    page.begunAt = QDateTime(QDate(2024, 2, 29), QTime(1, 2));
    return page;
}

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

} // namespace

/// Names of files that are made of what pages say.
class tst_GetNames : public QObject
{
    Q_OBJECT

private slots:
    void lines_data()
    {
        QTest::addColumn<QString>("given");
        QTest::addColumn<QString>("shown");
        QTest::newRow("plain") << text("A clip") << text("A clip");
        QTest::newRow("empty") << QString() << QString();
        QTest::newRow("wide") << text("動画 ビデオ") << text("動画 ビデオ");
        QTest::newRow("white space") << text("  a\t\n b\r\n") << text("a b");
        QTest::newRow("escape") << text("a\x1b[31mb\x07"
                                        "c\x7f"
                                        "d")
                                << text("a[31mbcd");
        QTest::newRow("second set") << text("a\xc2\x9b"
                                            "31mb")
                                    << text("a31mb");
        QTest::newRow("line separators") << text("a\xe2\x80\xa8"
                                                 "b\xe2\x80\xa9"
                                                 "c")
                                         << text("a b c");
        QTest::newRow("direction") << text("a\xe2\x80\xae"
                                           "4pm.exe")
                                   << text("a4pm.exe");
        QTest::newRow("isolates") << text("a\xe2\x81\xa6"
                                          "b\xe2\x81\xa9")
                                  << text("ab");
        QTest::newRow("byte order mark") << text("a\xef\xbb\xbf"
                                                 "b")
                                         << text("ab");
        QTest::newRow("joined picture") << text("👩‍👧 x") << text("👩‍👧 x");
        QTest::newRow("null") << QString(QChar(0)) << QString();
        QTest::newRow("half a pair") << QString(QChar(0xd83d)) + text("a")
                                     << text("\xef\xbf\xbd"
                                             "a");
    }

    void lines()
    {
        QFETCH(QString, given);
        QFETCH(QString, shown);
        QCOMPARE(SafeText::line(given), shown);
    }

    void linesAreBounded()
    {
        QCOMPARE(SafeText::line(QString(10, QLatin1Char('x')), 10).size(), 10);
        QCOMPARE(SafeText::line(QString(11, QLatin1Char('x')), 10).size(), 10);
        QCOMPARE(SafeText::line(QString(50000000, QLatin1Char('\n')), 10), QString());
        // Not within a pair of surrogates.
        const QString pictures = text("🎬🎬🎬");
        QCOMPARE(SafeText::line(pictures, 3), text("🎬"));
    }

    void names_data()
    {
        QTest::addColumn<QString>("form");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("name");
        const QString usual = text("{title}.{ext}");
        QTest::newRow("usual") << usual << text("A clip") << text("A clip.mp4");
        QTest::newRow("all") << text("{host}/{date}/{title}-{height}p-{id}.{ext}") << text("A")
                             << text("www.example.com/2024-02-29/A-720p-")
                + NameTemplate::idOf(pageOf({}).address) + text(".mp4");
        QTest::newRow("braces") << text("{{{title}}}.{ext}") << text("A") << text("{A}.mp4");
        QTest::newRow("without a title") << usual << QString() << text("clip.mp4");
        QTest::newRow("slashes") << usual << text("a/../../b\\c") << text("a_.._.._b_c.mp4");
        QTest::newRow("upwards") << usual << text("..") << text("_.mp4");
        QTest::newRow("upwards, as a folder")
            << text("{title}/x.{ext}") << text("..") << text("_/x.mp4");
        QTest::newRow("hidden") << usual << text(".bashrc") << text("_bashrc.mp4");
        QTest::newRow("forbidden")
            << usual << text("a:b*c?d\"e<f>g|h") << text("a_b_c_d_e_f_g_h.mp4");
        QTest::newRow("controls") << usual
                                  << text("a\x1b]0;x\x07"
                                          "b")
                                  << text("a]0;xb.mp4");
        QTest::newRow("decomposed") << usual << text("e\xcc\x81") << text("é.mp4");
        QTest::newRow("only spaces") << text("{title}") << text(" ") << text("clip");
        QTest::newRow("ends with dots") << text("{title}") << text("what...") << text("what");
    }

    void names()
    {
        QFETCH(QString, form);
        QFETCH(QString, title);
        QFETCH(QString, name);
        QString reason;
        const auto parsed = NameTemplate::parse(form, &reason);
        QVERIFY2(parsed, qPrintable(reason));
        QCOMPARE(parsed->nameFor(pageOf(title), text("mp4")), name);
    }

    void longNamesKeepTheirExtension()
    {
        const QString name = NameTemplate().nameFor(pageOf(text("動").repeated(400)), text("webm"));
        QVERIFY(name.endsWith(text("動.webm")));
        QVERIFY2(name.toUtf8().size() <= 200, qPrintable(name));
        QVERIFY(name.toUtf8().size() > 190);
    }

    void extensionsAreCleaned()
    {
        const QString name = NameTemplate().nameFor(pageOf(text("a")),
                                                    text("m/../p\x1b"
                                                         "4"));
        QCOMPARE(name, text("a.m_._p4"));
    }

    void aPageWithoutAnything()
    {
        PageFacts page;
        page.address = text("https://[::1]/");
        QVERIFY(!NameTemplate().nameFor(page, QString()).isEmpty());
    }

    void refusedTemplates_data()
    {
        QTest::addColumn<QString>("form");
        for (const char *const form : {"", "{name}", "{title", "title}", "/x/{title}", "../{title}",
                                       "a/../b", "a//b", "a/", "./a", "{title}/", "{}", "{title }"})
            QTest::newRow(form) << text(form);
    }

    void refusedTemplates()
    {
        QFETCH(QString, form);
        QString reason;
        QVERIFY(!NameTemplate::parse(form, &reason));
        QVERIFY(!reason.isEmpty());
    }

    void idsDiffer()
    {
        QCOMPARE(NameTemplate::idOf(text("https://a/")).size(), 12);
        QVERIFY(NameTemplate::idOf(text("https://a/")) != NameTemplate::idOf(text("https://b/")));
    }
};

CLIPWEIR_TEST_MAIN(tst_GetNames)
#include "tst_getnames.moc"
