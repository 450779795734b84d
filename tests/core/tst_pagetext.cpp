#include "PageRules.h"
#include "TestMain.h"

#include <random>

using page::firstCapture;
using page::Results;
using page::Rule;
using page::rules;
using page::Scan;
using page::u;

class tst_PageText : public QObject
{
    Q_OBJECT

private slots:
    void givesWhatThePlainExpressionGives_data();
    void givesWhatThePlainExpressionGives();
    void spaceIsWhatThePlainExpressionTakes();
    void longTextTakesLinearTime_data();
    void longTextTakesLinearTime();
    void handRows_data();
    void handRows();
    void manifests_data();
    void manifests();
    void manyManifests();
};

void tst_PageText::givesWhatThePlainExpressionGives_data()
{
    QTest::addColumn<int>("rule");
    for (int i = 0; i < rules().size(); ++i)
        QTest::newRow(rules().at(i).name) << i;
}

void tst_PageText::givesWhatThePlainExpressionGives()
{
    constexpr int textCount = 60000;
    constexpr unsigned seed = 20120229;
    constexpr int longestText = 16;

    QFETCH(int, rule);
    const Rule &tested = rules().at(rule);
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> length(0, longestText);
    std::uniform_int_distribution<int> choice(0, tested.tokens.size() - 1);
    int hits = 0;
    for (int i = 0; i < textCount; ++i) {
        QString text;
        for (int tokens = length(random); tokens > 0; --tokens)
            text += tested.tokens.at(choice(random));
        const Results expected = tested.plain(text);
        const Results actual = tested.scan(text);
        if (actual != expected)
            QFAIL(qPrintable(QStringLiteral("in [%1]: [%2] instead of [%3]")
                                 .arg(text, actual.join(u("|")), expected.join(u("|")))));
        hits += !expected.isEmpty() && !expected.first().isEmpty() && expected.first() != u("no");
    }
    QVERIFY2(hits > textCount / 1000, qPrintable(QString::number(hits)));
}

void tst_PageText::spaceIsWhatThePlainExpressionTakes()
{
    const Scan plain = firstCapture("\"canonical\"\\s+href=\"([^\"]+)\"");
    for (int code = 0; code <= 0xffff; ++code) {
        const QString text = u("\"canonical\"") + QChar(code) + u("href=\"a\"");
        QCOMPARE(PageText::canonicalAddress(text), plain(text).first());
    }
}

void tst_PageText::longTextTakesLinearTime_data()
{
    givesWhatThePlainExpressionGives_data();
}

void tst_PageText::longTextTakesLinearTime()
{
    // A scan that starts again from every place takes longer than the test may.
    constexpr int textCharacters = 300 * 1000;
    QFETCH(int, rule);
    const Rule &tested = rules().at(rule);
    for (const QString &token : tested.tokens) {
        for (const QString &begin : tested.tokens) {
            const QString text = begin + token.repeated(textCharacters / token.size());
            QVERIFY(tested.scan(text).join(QString()).size() <= text.size());
        }
    }
}

void tst_PageText::handRows_data()
{
    QTest::addColumn<int>("rule");
    QTest::addColumn<QString>("text");
    QTest::addColumn<Results>("expected");
    enum { Title, SharedTitle, Thumb, Canonical, Media };
    const auto row = [](const char *name, int rule, const char *text, const Results &expected) {
        QTest::newRow(name) << rule << u(text) << expected;
    };
    row("title: tag of many lines", Title, "<title\n a='1'\n>\nb\n</title>", {u("\nb\n")});
    row("title: opened twice", Title, "<title <title>a</title>", {u("a")});
    row("title: bad one before", Title, "<title>a<title>b</title>", {u("b")});
    row("title: empty one wins", Title, "<title></title><title>b</title>", {QString()});
    row("title: end tag cut off", Title, "<title>a</titl", {QString()});
    row("title: no closing bracket", Title, "<title<title<title", {QString()});
    row("shared title: bad one before", SharedTitle,
        "<meta property=\"og:title\" x><meta property=\"og:title\" content=\"a\">", {u("a")});
    row("shared title: over lines", SharedTitle,
        "<meta\n\tproperty\n=\n\"og:title\"\ncontent\n=\n\"a\nb\"", {u("a\nb")});
    row("shared title: no space", SharedTitle, "<metaproperty=\"og:title\" content=\"a\">",
        {QString()});
    row("shared title: not closed", SharedTitle, "<meta property=\"og:title\" content=\"a",
        {QString()});
    row("thumb: cut off http", Thumb, "og:image htthttp:a'", {u("http:a")});
    row("thumb: at once", Thumb, "og:imagehttp'", {u("http")});
    row("thumb: second name in the address", Thumb, "og:image http:og:image\"",
        {u("http:og:image")});
    row("canonical: colon and mixed quotes", Canonical, ":'canonical\"  href='http://h/\"",
        {u("http://h/")});
    row("canonical: empty one before", Canonical,
        "\"canonical\" href=\"\" \"canonical\" href=\"a\"", {u("a")});
    row("canonical: space around equals", Canonical, "\"canonical\" href = \"a\"", {QString()});
    row("canonical: no quote before", Canonical, "canonical\" href=\"a\"", {QString()});
    row("canonical: href first", Canonical, "href=\"a\" rel=\"canonical\"", {QString()});
    row("media: each once, in order", Media, "'http://h/b.mp4' \"http://h/a.flv\" 'http://h/b.mp4'",
        {u("http://h/b.mp4"), u("http://h/a.flv")});
    row("media: closing quote opens nothing", Media, "'http:a.mp4'http:b.mp4'", {u("http:a.mp4")});
    row("media: closing quote of no address opens one", Media, "'http:a'http:b.mp4'",
        {u("http:b.mp4")});
    row("media: query", Media, "'http://h/a.mp4?x=1'", {});
    row("media: extension in a query", Media, "'http://h/a?f=b.mp4'", {u("http://h/a?f=b.mp4")});
    row("media: no name", Media, "'http.mp4'", {});
    row("media: shortest", Media, "'httpx.rm'", {u("httpx.rm")});
    row("media: over lines", Media, "'http\n.rm'", {u("http\n.rm")});
    row("media: upper case", Media, "'http://h/a.MP4'", {});
    row("media: picture", Media, "'http://h/a.jpg'", {});
    row("media: first character", Media, "http://h/a.mp4'", {});
    row("media: not closed", Media, "'http://h/a.mp4", {});
    row("media: rtmp", Media, "'rtmp://h/a.mp4'", {});
    row("media: empty text", Media, "", {});
}

void tst_PageText::handRows()
{
    QFETCH(int, rule);
    QFETCH(QString, text);
    QFETCH(Results, expected);
    QCOMPARE(rules().at(rule).scan(text), expected);
    QCOMPARE(rules().at(rule).plain(text), expected);
}

void tst_PageText::manifests_data()
{
    QTest::addColumn<QString>("html");
    QTest::addColumn<QStringList>("addresses");
    const auto row = [](const char *name, const char *html, const QStringList &addresses) {
        QTest::newRow(name) << QString::fromLatin1(html) << addresses;
    };
    const QString plain = QStringLiteral("http://h/a.m3u8");
    row("both kinds, each once", "'http://h/a.m3u8' \"/b.MPD?x=1\" 'http://h/a.m3u8'",
        {plain, QStringLiteral("/b.MPD?x=1")});
    row("another kind", "'/a.f4m?b'", {QStringLiteral("/a.f4m?b")});
    row("JSON", "{\"u\":\"http:\\/\\/h\\/a.m3u8\"}", {plain});
    row("JSON in a text", "x('{\\\"u\\\":\\\"http:\\/\\/h\\/a.m3u8\\\"}')", {plain});
    row("JSON in an attribute", "<a b=\"{&quot;u&quot;:&quot;http://h/a.m3u8&quot;}\">", {plain});
    row("escapes", "'http:\\u002F\\u002Fh/a.m3u8?b=1\\u0026c=2&amp;d=3'",
        {plain + QStringLiteral("?b=1&c=2&d=3")});
    row("a blank", "'see http://h/a.m3u8'", {});
    row("no quotes", "http://h/a.m3u8", {});
    row("not closed", "'http://h/a.m3u8", {});
    row("nothing before", "'.m3u8'", {QStringLiteral(".m3u8")});
    row("another name", "'http://h/a.m3u' 'http://h/a.mp4'", {});
    QTest::newRow("too long") << QLatin1Char('\'') + QString(5000, QLatin1Char('a'))
            + QLatin1String(".m3u8'")
                              << QStringList();
}

void tst_PageText::manifests()
{
    QFETCH(QString, html);
    QTEST(PageText::manifestAddresses(html), "addresses");
}

/// A page may be made of them.
void tst_PageText::manyManifests()
{
    QString html;
    for (int i = 0; i < 100000; ++i)
        html += QStringLiteral("'%1.m3u8'").arg(i);
    QCOMPARE(PageText::manifestAddresses(html).size(), 64);
    QVERIFY(PageText::manifestAddresses(QStringLiteral(".mpd").repeated(1000000)).isEmpty());
}

CLIPWEIR_TEST_MAIN(tst_PageText)
#include "tst_pagetext.moc"
