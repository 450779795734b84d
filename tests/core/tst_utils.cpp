#include "TestMain.h"
#include "utils.h"

#include <QProcess>
#include <QTimer>

namespace {

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

/// An object with a signal of its own to wait for.
class Bell final : public QObject
{
    Q_OBJECT

signals:
    void rang(int times);
};

} // namespace

class tst_Utils : public QObject
{
    Q_OBJECT

private slots:
    void regexString();
    void regexString2FillsInTheValueAsItStands();
    void regexStringListCollectsEachCaptureOnce();
    void regexStringListMatchesDecodedText();
    void regexStringListResolves();
    void regexStringListPassesEmptyMatches();
    void regexStringListTakesManyItems();
    void midString_data();
    void midString();
    void metaElements_data();
    void metaElements();
    void getMetaProperty5();
    void getMetaLink_data();
    void getMetaLink();
    void getMetaTitle_data();
    void getMetaTitle();
    void parseTitle_data();
    void parseTitle();
    void parseThumb_data();
    void parseThumb();
    void getFormatFromUrl_data();
    void getFormatFromUrl();
    void everyExtension_data();
    void everyExtension();
    void matchMediaType_data();
    void matchMediaType();
    void decodeHtmlNumber_data();
    void decodeHtmlNumber();
    void decodeHtml_data();
    void decodeHtml();
    void decodeUrl_data();
    void decodeUrl();
    void decodeUrlTakesEveryCharacterAlike();
    void decodeUrlCopiesNothingWithoutNeed();
    void decodeUrlList();
    void decodeU6();
    void resolved();
    void safeFileName_data();
    void safeFileName();
    void parseUrlParam_data();
    void parseUrlParam();
    void waitForReturnsWithTheSignal();
    void waitForReturnsWhenTheObjectIsDestroyed();
    void waitForNothingReturnsAtOnce();
    void closeProcessWindowLeavesTheProcessAlone();
};

void tst_Utils::regexString()
{
    QCOMPARE(Utils::RegexString(u("a=1 a=2"), u("a=(\\d)")), u("1"));
    QCOMPARE(Utils::RegexString(u("b=1"), u("a=(\\d)")), QString());
    QCOMPARE(Utils::RegexString(u("a=1"), u("a=\\d")), QString());
    QCOMPARE(Utils::RegexString(u("A=1"), u("a=(\\d)")), QString());
    QCOMPARE(Utils::RegexString(u("a=1"), u("a=(\\d")), QString());
}

void tst_Utils::regexString2FillsInTheValueAsItStands()
{
    QCOMPARE(Utils::RegexString2(u("key: value"), u("%1: (\\w+)"), u("key")), u("value"));
    QCOMPARE(Utils::RegexString2(u("kxy: value"), u("%1: (\\w+)"), u("k.y")), u("value"));
    QCOMPARE(Utils::RegexString2(u("%1: value"), u("%1: (\\w+)"), u("%1")), u("value"));
}

void tst_Utils::regexStringListCollectsEachCaptureOnce()
{
    QStringList list{u("b"), u("b")};
    Utils::RegexStringList(QString(), u("<a><b><c><a><A><>"), u("<([^>]*)>"), list, false);
    QCOMPARE(list, (QStringList{u("b"), u("b"), u("a"), u("c"), u("A"), QString()}));
}

void tst_Utils::regexStringListMatchesDecodedText()
{
    QStringList list;
    Utils::RegexStringList(QString(), u("%3Ca%20b%3e <http\\x3a\\x2f\\x2fh>"), u("<([^>]*)>"), list,
                           false);
    QCOMPARE(list, (QStringList{u("a b"), u("http://h")}));
}

void tst_Utils::regexStringListResolves()
{
    QStringList list;
    Utils::RegexStringList(u("http://h/d/page?q"),
                           u("<a.mp4></b.mp4><//o/c><http://x/y><../d/a.mp4>"), u("<([^>]*)>"),
                           list, true);
    QCOMPARE(list,
             (QStringList{u("http://h/d/a.mp4"), u("http://h/b.mp4"), u("http://o/c"),
                          u("http://x/y")}));
}

void tst_Utils::regexStringListPassesEmptyMatches()
{
    QStringList list;
    Utils::RegexStringList(QString(), u("xaaxa"), u("(a*)"), list, false);
    QCOMPARE(list, (QStringList{QString(), u("aa"), u("a")}));

    list.clear();
    Utils::RegexStringList(QString(), QString(), u("(a*)"), list, false);
    QCOMPARE(list, QStringList{QString()});
}

void tst_Utils::regexStringListTakesManyItems()
{
    constexpr int count = 20000;
    QString text;
    for (int i = 0; i < 2 * count; ++i)
        text += QStringLiteral("<%1>").arg(i % count);
    QStringList list;
    Utils::RegexStringList(QString(), text, u("<([^>]*)>"), list, false);
    QCOMPARE(list.size(), count);
    QCOMPARE(list.first(), u("0"));
    QCOMPARE(list.last(), QString::number(count - 1));
}

void tst_Utils::midString_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("begin");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << u("a[b]c") << u("[") << u("]") << u("b");
    QTest::newRow("long markers") << u("x<<ab>>y") << u("<<") << u(">>") << u("ab");
    QTest::newRow("first pair") << u("[a][b]") << u("[") << u("]") << u("a");
    QTest::newRow("end only before begin") << u("]a[b") << u("[") << u("]") << QString();
    QTest::newRow("end before and after begin") << u("]a[b]") << u("[") << u("]") << u("b");
    QTest::newRow("no begin") << u("a]") << u("[") << u("]") << QString();
    QTest::newRow("no end") << u("[a") << u("[") << u("]") << QString();
    QTest::newRow("nothing between") << u("[]") << u("[") << u("]") << QString();
    QTest::newRow("same marker") << u("'a'b'") << u("'") << u("'") << u("a");
    QTest::newRow("letter case") << u("Aab") << u("a") << u("B") << QString();
    QTest::newRow("markers overlap") << u("aab") << u("aa") << u("ab") << QString();
    QTest::newRow("empty markers") << u("abc") << QString() << QString() << QString();
    QTest::newRow("empty text") << QString() << u("[") << u("]") << QString();
}

void tst_Utils::midString()
{
    QFETCH(QString, text);
    QFETCH(QString, begin);
    QFETCH(QString, end);
    QFETCH(QString, expected);
    QCOMPARE(Utils::MidString(text, begin, end), expected);
    QCOMPARE(Utils::MidString(text.toUtf8(), begin.toUtf8().constData(), end.toUtf8().constData()),
             expected.toUtf8());
}

void tst_Utils::metaElements_data()
{
    QTest::addColumn<QString>("rest"); // what follows the attribute's name
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << u("=\"key\" content=\"value\">") << u("value");
    QTest::newRow("white space") << u(" =\n\"key\"\t content = \"value\"/>") << u("value");
    QTest::newRow("entities stay") << u("=\"key\" content=\"a &amp; 'b'\">") << u("a &amp; 'b'");
    QTest::newRow("empty") << u("=\"key\" content=\"\">") << QString();
    QTest::newRow("single quotes") << u("='key' content='value'>") << QString();
    QTest::newRow("other name") << u("=\"keys\" content=\"value\">") << QString();
    QTest::newRow("letter case") << u("=\"Key\" content=\"value\">") << QString();
    QTest::newRow("another attribute between")
        << u("=\"key\" id=\"i\" content=\"v\">") << QString();
    QTest::newRow("not closed") << u("=\"key\" content=\"value") << QString();
}

void tst_Utils::metaElements()
{
    QFETCH(QString, rest);
    QFETCH(QString, expected);
    const QString byName = u("<meta>\n<meta name") + rest;
    const QString byProperty = u("<meta>\n<meta  property") + rest;
    QCOMPARE(Utils::GetMetaName(byName, u("key")), expected);
    QCOMPARE(Utils::GetMetaName(byProperty, u("key")), QString());
    QCOMPARE(Utils::GetMetaProperty(byProperty, u("key")), expected);
    QCOMPARE(Utils::GetMetaProperty(byName, u("key")), QString());
}

void tst_Utils::getMetaProperty5()
{
    const QString html = u("<param name=\"movie\" value=\"a.swf\"><param id = \"b\" data=\"c\">");
    const auto find = [&html](const char *tag, const char *attribute, const char *value,
                              const char *content) {
        return Utils::GetMetaProperty(html, u(tag), u(attribute), u(value), u(content));
    };
    QCOMPARE(find("param", "name", "movie", "value"), u("a.swf"));
    QCOMPARE(find("param", "id", "b", "data"), u("c"));
    QCOMPARE(find("param", "name", "m.vie", "value"), u("a.swf"));
    QCOMPARE(find("param", "name", "movie", "data"), QString());
    QCOMPARE(find("embed", "name", "movie", "value"), QString());
}

void tst_Utils::getMetaLink_data()
{
    QTest::addColumn<QString>("html");
    QTest::addColumn<QString>("expected");
    QTest::newRow("rel first") << u("<link rel=\"key\" href=\"/a\">") << u("/a");
    QTest::newRow("href first") << u("<link href=\"/a\" rel=\"key\">") << u("/a");
    QTest::newRow("both, rel first wins")
        << u("<link href=\"/a\" rel=\"key\"><link rel=\"key\" href=\"/b\">") << u("/b");
    QTest::newRow("empty, then href first")
        << u("<link rel=\"key\" href=\"\"><link href=\"/a\" rel=\"key\">") << u("/a");
    QTest::newRow("other rel") << u("<link rel=\"icon\" href=\"/a\">") << QString();
    QTest::newRow("white space") << u("<link\n rel = \"key\"\n href = \"/a\">") << u("/a");
}

void tst_Utils::getMetaLink()
{
    QFETCH(QString, html);
    QTEST(Utils::GetMetaLink(html, u("key")), "expected");
}

void tst_Utils::getMetaTitle_data()
{
    QTest::addColumn<QString>("html");
    QTest::addColumn<QString>("expected");
    QTest::newRow("meta") << u("<title>b</title><meta name=\"title\" content=\" a &amp; b \">")
                          << u(" a & b ");
    QTest::newRow("element") << u("<title>\n a &lt; b \n</title>") << u("a < b");
    QTest::newRow("entities are decoded after trimming")
        << u("<title> &nbsp;a&#32;</title>") << u(" a ");
    QTest::newRow("empty meta") << u("<meta name=\"title\" content=\"\"><title>b</title>")
                                << u("b");
    QTest::newRow("element with attributes") << u("<title id=\"t\">b</title>") << QString();
    QTest::newRow("none") << u("<p>b</p>") << QString();
}

void tst_Utils::getMetaTitle()
{
    QFETCH(QString, html);
    QTEST(Utils::GetMetaTitle(html), "expected");
}

void tst_Utils::parseTitle_data()
{
    QTest::addColumn<QString>("html");
    QTest::addColumn<QString>("expected");
    QTest::newRow("property") << u(
        "<title>b</title><meta property=\"og:title\" content=\"a &quot;b&quot;\">")
                              << u("a \"b\"");
    QTest::newRow("empty property")
        << u("<meta property=\"og:title\" content=\"\"><title>b</title>") << u("b");
    QTest::newRow("element is not trimmed") << u("<title> a &#x26; b\n</title>") << u(" a & b\n");
    QTest::newRow("element with attributes") << u("<title lang=\"en\">a</title >") << u("a");
    QTest::newRow("longer element name") << u("<titles>a</titles>") << u("a");
    QTest::newRow("element inside") << u("<title>a<b>c</b></title>") << QString();
    QTest::newRow("second try") << u("<title>a<b></b><title>c</title>") << u("c");
    QTest::newRow("not closed") << u("<title>a") << QString();
    QTest::newRow("upper case") << u("<TITLE>a</TITLE>") << QString();
    QTest::newRow("not Latin") << u("<title>\xe4\xb8\xad\xf0\x9f\x8e\xac</title>")
                               << u("\xe4\xb8\xad\xf0\x9f\x8e\xac");
    QTest::newRow("empty") << QString() << QString();
}

void tst_Utils::parseTitle()
{
    QFETCH(QString, html);
    QTEST(Utils::parseTitle(html), "expected");
}

void tst_Utils::parseThumb_data()
{
    QTest::addColumn<QString>("html");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << u("<meta property=\"og:image\" content=\"http://h/a.jpg\">")
                           << u("http://h/a.jpg");
    QTest::newRow("single quotes")
        << u("'og:image' content='https://h/a.jpg'") << u("https://h/a.jpg");
    QTest::newRow("encoded") << u("og:image=http%3A\\x2f\\x2fh/a%20b.jpg\"")
                             << u("http://h/a b.jpg");
    QTest::newRow("first http after the name")
        << u("http://no\" og:image:width \"640\" \"http://h/1\" \"http://h/2\"") << u("http://h/1");
    QTest::newRow("over lines") << u("og:image\n\n\"http://h/a\"") << u("http://h/a");
    QTest::newRow("no quote after it") << u("og:image http://h/a") << QString();
    QTest::newRow("no http") << u("og:image=\"/a.jpg\"") << QString();
    QTest::newRow("http only before") << u("http://h/a\" og:image \"") << QString();
    QTest::newRow("no name") << u("\"http://h/a.jpg\"") << QString();
}

void tst_Utils::parseThumb()
{
    QFETCH(QString, html);
    QTEST(Utils::parseThumb(html), "expected");
}

void tst_Utils::getFormatFromUrl_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("expected");
    QTest::newRow("path") << u("http://h/d/video.mp4") << u("mp4");
    QTest::newRow("upper case") << u("http://h/d/video.MP4") << QString();
    QTest::newRow("before a query") << u("http://h/d/video.mp4?a=b") << u("mp4");
    QTest::newRow("before a folder") << u("http://h/video.mp4/x") << u("mp4");
    QTest::newRow("before a fragment") << u("http://h/video.mp4#t=1") << QString();
    QTest::newRow("parameter without a name") << u("http://h/p?movie.flv&b=1") << u("flv");
    QTest::newRow("later parameter") << u("http://h/p?a=1&movie.flv&b=1") << u("flv");
    QTest::newRow("path in a parameter") << u("http://h/p?f=/d/movie.flv&b=1") << u("flv");
    // The name before the extension holds no "=", so a bare value behind one is not found.
    QTest::newRow("bare value of a parameter") << u("http://h/p?f=movie.flv&b=1") << QString();
    QTest::newRow("first of two") << u("http://h/a.flv/b.mp4") << u("flv");
    QTest::newRow("last point counts") << u("http://h/a.mp4.jpg") << u("jpg");
    QTest::newRow("longer extension") << u("http://h/a.mp4v") << QString();
    QTest::newRow("no name") << u("http://h/.mp4") << QString();
    QTest::newRow("host") << u("http://h.mov/") << u("mov");
    QTest::newRow("equals sign inside") << u("http://h/a=b.mp4") << QString();
    QTest::newRow("no slash") << u("video.mp4") << QString();
    QTest::newRow("empty") << QString() << QString();
}

void tst_Utils::getFormatFromUrl()
{
    QFETCH(QString, address);
    QTEST(Utils::getFormatFromUrl(address), "expected");
}

void tst_Utils::everyExtension_data()
{
    QTest::addColumn<bool>("isMedia");
    for (const char *media : {"flv", "ram", "mpg", "mpeg", "avi", "rm", "wmv", "mov", "asf", "mp3",
                              "rar", "movie", "divx", "rbs", "mp4", "mpeg4"})
        QTest::newRow(media) << true;
    for (const char *picture : {"jpg", "gif", "png"})
        QTest::newRow(picture) << false;
}

void tst_Utils::everyExtension()
{
    QFETCH(bool, isMedia);
    const QString extension = u(QTest::currentDataTag());
    const QString address = u("http://h/name.") + extension;
    QCOMPARE(Utils::getFormatFromUrl(address), extension);
    QCOMPARE(Utils::matchMediaType(address), isMedia);
}

void tst_Utils::matchMediaType_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("expected");
    QTest::newRow("http") << u("http://h/a.mp4") << true;
    QTest::newRow("https") << u("https://h/a.mp4") << true;
    QTest::newRow("query") << u("http://h/a.flv?x=y") << true;
    QTest::newRow("parameter") << u("http://h/p?f=a.flv&x=y") << true;
    QTest::newRow("folder") << u("http://h/a.flv/x") << true;
    QTest::newRow("no path") << u("http://a.flv") << true;
    QTest::newRow("rtmp") << u("rtmp://h/a.mp4") << false;
    QTest::newRow("ftp") << u("ftp://h/a.mp4") << false;
    QTest::newRow("one slash") << u("http:/h/a.mp4") << false;
    QTest::newRow("space before") << u(" http://h/a.mp4") << false;
    QTest::newRow("address inside") << u("x?http://h/a.mp4") << false;
    QTest::newRow("scheme in upper case") << u("HTTP://h/a.mp4") << false;
    QTest::newRow("extension in upper case") << u("http://h/a.MP4") << false;
    QTest::newRow("quote before") << u("http://h/\"a.mp4") << false;
    QTest::newRow("quote after") << u("http://h/a.mp4/\"") << true;
    QTest::newRow("fragment") << u("http://h/a.mp4#t") << false;
    QTest::newRow("no name") << u("http://.mp4") << false;
    QTest::newRow("other extension") << u("http://h/a.html") << false;
    QTest::newRow("picture") << u("http://h/a.jpg") << false;
    QTest::newRow("empty") << QString() << false;
}

void tst_Utils::matchMediaType()
{
    QFETCH(QString, address);
    QTEST(Utils::matchMediaType(address), "expected");
}

void tst_Utils::decodeHtmlNumber_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");
    QTest::newRow("decimal and hexadecimal") << u("a&#x41;b&#66;c") << u("aAbBc");
    QTest::newRow("letter case of digits") << u("&#xeE;") << u("\xc3\xae");
    QTest::newRow("upper-case X") << u("&#X41;") << u("&#X41;");
    QTest::newRow("hex letters in a decimal") << u("&#12ab;") << QString(QChar(0));
    QTest::newRow("zero") << u("&#0;") << QString(QChar(0));
    QTest::newRow("no digits") << u("&#;&#x;") << u("&#;&#x;");
    QTest::newRow("no semicolon") << u("&#65 &#66;") << u("&#65 B");
    QTest::newRow("at the end") << u("&#65;&#6") << u("A&#6");
    QTest::newRow("bare") << u("&#") << u("&#");
    QTest::newRow("inside another") << u("&#&#65;") << u("&#A");
    QTest::newRow("digits, then another") << u("&#6&#x42;") << u("&#6B");
    QTest::newRow("result is not read again") << u("&#38;#65;") << u("&#65;");
    QTest::newRow("last of the basic plane") << u("&#xFFFF;") << QString(QChar(0xffff));
    QTest::newRow("first above it") << u("&#x10000;") << u("\xf0\x90\x80\x80");
    QTest::newRow("surrogate pair") << u("&#127916;") << u("\xf0\x9f\x8e\xac");
    QTest::newRow("last character") << u("&#x10FFFF;") << u("\xf4\x8f\xbf\xbf");
    QTest::newRow("first out of range") << u("&#x110000;") << u("\xef\xbf\xbd");
    QTest::newRow("too big to be read") << u("&#99999999999999999999;") << u("\xef\xbf\xbd");
    QTest::newRow("last before the surrogates") << u("&#xD7FF;") << u("\xed\x9f\xbf");
    QTest::newRow("first surrogate") << u("&#xD800;") << u("\xef\xbf\xbd");
    QTest::newRow("last surrogate") << u("&#xDFFF;") << u("\xef\xbf\xbd");
    QTest::newRow("two halves") << u("&#xD83D;&#xDE00;") << u("\xf0\x9f\x98\x80");
    QTest::newRow("two halves, decimal") << u("a&#55357;&#56832;b")
                                         << u("a\xf0\x9f\x98\x80"
                                              "b");
    QTest::newRow("two characters in halves")
        << u("&#xD83D;&#xDE00;&#xD83D;&#xDE01;") << u("\xf0\x9f\x98\x80\xf0\x9f\x98\x81");
    QTest::newRow("halves the wrong way round")
        << u("&#xDE00;&#xD83D;") << u("\xef\xbf\xbd\xef\xbf\xbd");
    QTest::newRow("halves apart") << u("&#xD83D; &#xDE00;") << u("\xef\xbf\xbd \xef\xbf\xbd");
    QTest::newRow("first half twice")
        << u("&#xD83D;&#xD83D;&#xDE00;") << u("\xef\xbf\xbd\xf0\x9f\x98\x80");
    QTest::newRow("second half twice")
        << u("&#xD83D;&#xDE00;&#xDE00;") << u("\xf0\x9f\x98\x80\xef\xbf\xbd");
    QTest::newRow("first after the surrogates") << u("&#xE000;") << u("\xee\x80\x80");
    QTest::newRow("leading zeros") << u("&#x0000000000041;") << u("A");
    QTest::newRow("none") << u("abc") << u("abc");
    QTest::newRow("empty") << QString() << QString();
}

void tst_Utils::decodeHtmlNumber()
{
    QFETCH(QString, text);
    QTEST(::decodeHtmlNumber(text), "expected");
}

void tst_Utils::decodeHtml_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");
    QTest::newRow("numbers") << u("&#x41;&#66;") << u("AB");
    QTest::newRow("names") << u("&lt;a&gt;&nbsp;&quot;b&quot; &amp; c") << u("<a> \"b\" & c");
    QTest::newRow("amp goes last") << u("&amp;lt;") << u("&lt;");
    QTest::newRow("number makes an entity") << u("&#38;lt;") << u("<");
    QTest::newRow("names in upper case") << u("&LT;") << u("&LT;");
    QTest::newRow("unknown name") << u("&copy;&apos;") << u("&copy;&apos;");
    QTest::newRow("no semicolon") << u("a &lt b") << u("a &lt b");
    QTest::newRow("none") << u("a;b") << u("a;b");
    QTest::newRow("empty") << QString() << QString();
}

void tst_Utils::decodeHtml()
{
    QFETCH(QString, text);
    QTEST(Utils::DecodeHtml(text), "expected");
}

void tst_Utils::decodeUrl_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");
    QTest::newRow("script escapes") << u("http\\x3a\\x2f\\x2fh") << u("http://h");
    QTest::newRow("script escapes in upper case") << u("\\x3A\\x2F") << u("\\x3A\\x2F");
    QTest::newRow("percent") << u("a%20b%2Fc%2fd") << u("a b/c/d");
    QTest::newRow("once") << u("%2541") << u("%41");
    QTest::newRow("UTF-8") << u("%e4%b8%ad\xe4\xb8\xad") << u("\xe4\xb8\xad\xe4\xb8\xad");
    QTest::newRow("not UTF-8") << u("a%ffb")
                               << u("a\xef\xbf\xbd"
                                    "b");
    QTest::newRow("percent, then escape") << u("%5cx3a") << u("\\x3a");
    QTest::newRow("NUL does not cut") << u("a%00b") << QString(u("a") + QChar(0) + u("b"));
    QTest::newRow("cut short") << u("a%4") << u("a%4");
    QTest::newRow("plus stays") << u("a+b") << u("a+b");
    QTest::newRow("empty") << QString() << QString();
}

void tst_Utils::decodeUrl()
{
    QFETCH(QString, text);
    QTEST(Utils::DecodeUrl(text), "expected");
}

void tst_Utils::decodeUrlTakesEveryCharacterAlike()
{
    for (uint code = 0; code < 0x10000; ++code) {
        const QChar c(code);
        for (const QString &text : {QString(c), c + u("a"), u("a") + c + u("b")})
            QCOMPARE(Utils::DecodeUrl(text), QUrl::fromPercentEncoding(text.toUtf8()));
    }
}

void tst_Utils::decodeUrlCopiesNothingWithoutNeed()
{
    const QString text = u("<title>a</title>");
    QVERIFY(Utils::DecodeUrl(text).constData() == text.constData());
}

void tst_Utils::decodeUrlList()
{
    QStringList list{u("a%20b"), QString(), u("\\x3a")};
    Utils::DecodeUrl(list);
    QCOMPARE(list, (QStringList{u("a b"), QString(), u(":")}));
}

void tst_Utils::decodeU6()
{
    QCOMPARE(Utils::DecodeU6(u("a\\u002520b\\x2f")), u("a b/"));
    QCOMPARE(Utils::DecodeU6(u("a\\u0026b")), u("a\\u0026b"));
}

void tst_Utils::resolved()
{
    QStringList list{u("a.mp4"), u("/b"), u("http://x/c"), u("?d=1"), u("rtmp://y/z")};
    Utils::resolved(list, u("http://h/d/page.html"));
    QCOMPARE(list,
             (QStringList{u("http://h/d/a.mp4"), u("http://h/b"), u("http://x/c"),
                          u("http://h/d/page.html?d=1"), u("rtmp://y/z")}));
}

void tst_Utils::safeFileName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("expected");
    QTest::newRow("the colon stays") << u("a/b:c?") << u("a_b:c_");
    QTest::newRow("all six") << u("/\\*?!") + QChar(0) << u("______");
    QTest::newRow("others stay") << u("<>|\"\n\t.\x7f") << u("<>|\"\n\t.\x7f");
    QTest::newRow("not Latin") << u("\xe4\xb8\xad?") << u("\xe4\xb8\xad_");
    QTest::newRow("empty") << QString() << QString();
}

void tst_Utils::safeFileName()
{
    QFETCH(QString, name);
    QTEST(Utils::SafeFileName(name, QLatin1Char('_')), "expected");
}

void tst_Utils::parseUrlParam_data()
{
    using Map = QMap<QString, QString>;
    QTest::addColumn<QString>("address");
    QTest::addColumn<Map>("expected");
    QTest::newRow("one pair only") << u("a=1&b=x=y&c") << Map{{u("a"), u("1")}};
    QTest::newRow("address") << u("http://h/p?a=1&b=2") << Map{{u("a"), u("1")}, {u("b"), u("2")}};
    QTest::newRow("later wins") << u("p?a=1&a=2") << Map{{u("a"), u("2")}};
    QTest::newRow("empty value and name")
        << u("p?a=&=b&=") << Map{{u("a"), QString()}, {QString(), QString()}};
    QTest::newRow("no decoding") << u("p?a=%20+&b;c=1")
                                 << Map{{u("a"), u("%20+")}, {u("b;c"), u("1")}};
    QTest::newRow("second question mark") << u("p?a=1?b") << Map{{u("a"), u("1?b")}};
    QTest::newRow("question mark first") << u("?a=1") << Map{{u("?a"), u("1")}};
    QTest::newRow("empty parts") << u("p?&&a=1&") << Map{{u("a"), u("1")}};
    QTest::newRow("empty") << QString() << Map{};
}

void tst_Utils::parseUrlParam()
{
    using Map = QMap<QString, QString>;
    QFETCH(QString, address);
    QFETCH(Map, expected);
    QCOMPARE(Utils::ParseUrlParam(address), expected);
}

void tst_Utils::waitForReturnsWithTheSignal()
{
    Bell bell;
    QStringList order;
    QTimer::singleShot(0, &bell, [&] { order += u("event"); });
    QTimer::singleShot(1, &bell, [&] {
        order += u("signal");
        emit bell.rang(1);
    });
    Utils::WaitFor(&bell, SIGNAL(rang(int)));
    order += u("returned");
    QCOMPARE(order, (QStringList{u("event"), u("signal"), u("returned")}));
}

void tst_Utils::waitForReturnsWhenTheObjectIsDestroyed()
{
    auto *const bell = new Bell;
    const QPointer<Bell> guard(bell);
    QTimer::singleShot(0, bell, [bell] { bell->deleteLater(); });
    Utils::WaitFor(bell, SIGNAL(rang(int)));
    QVERIFY(guard.isNull());
}

void tst_Utils::waitForNothingReturnsAtOnce()
{
    Utils::WaitFor(nullptr, SIGNAL(rang(int)));
    Bell bell;
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u("No such signal Bell::missing")));
    Utils::WaitFor(&bell, SIGNAL(missing()));
}

void tst_Utils::closeProcessWindowLeavesTheProcessAlone()
{
    QProcess process;
    process.start(u("cat"), QStringList());
    QVERIFY(process.waitForStarted());
    Utils::CloseProcessWindow(process.processId(), u("cat"));
    QVERIFY(process.write("still there\n") > 0);
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.readAllStandardOutput(), QByteArray("still there\n"));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
}

CLIPWEIR_TEST_MAIN(tst_Utils)
#include "tst_utils.moc"
