#include "PlayerDescription.h"
#include "TestMain.h"

namespace {

/// A description whose video entry has these parameters.
QByteArray descriptionOf(const QByteArray &parameters)
{
    return R"({"sequence":[{"layerList":[{"sequenceList":[{"name":"main","layerList":[)"
           R"({"name":"video","param":{)"
        + parameters + "}}]}]}]}]}";
}

QStringList namesOf(const QList<PlayerDescription::Stream> &streams)
{
    QStringList names;
    for (const PlayerDescription::Stream &stream : streams)
        names += stream.quality + QLatin1Char(' ') + stream.address;
    return names;
}

} // namespace

class tst_PlayerDescription : public QObject
{
    Q_OBJECT

private slots:
    void pieces_data();
    void pieces();
    void streams_data();
    void streams();
};

void tst_PlayerDescription::pieces_data()
{
    QTest::addColumn<QString>("flashVars");
    QTest::addColumn<QByteArray>("expected");
    const auto row = [](const char *name, const char *flashVars, const QByteArray &expected) {
        QTest::newRow(name) << QString::fromUtf8(flashVars) << expected;
    };
    row("nothing", "", "");
    row("other variables", "a=1&b=2", "");
    row("one piece", "a=1&sequence=%7B%22a%22%7D&b=2", "{\"a\"}");
    row("several pieces", "sequence=a&x=1&sequence=b", "ab");
    row("inside a longer name", "mysequence=a", "a");
    row("named twice", "sequence=sequence=a", "sequence=a");
    row("broken escapes", "sequence=%&sequence=%2", "%%2");
}

void tst_PlayerDescription::pieces()
{
    QFETCH(QString, flashVars);
    QTEST(PlayerDescription::piecesIn(flashVars), "expected");
}

void tst_PlayerDescription::streams_data()
{
    QTest::addColumn<QByteArray>("description");
    QTest::addColumn<QStringList>("expected");
    const auto row = [](const char *name, const QByteArray &text, const QStringList &expected) {
        QTest::newRow(name) << text << expected;
    };
    row("empty", "", {});
    row("no JSON", "{\"sequence\"", {});
    row("a list", "[1]", {});
    row("an error", "{\"error\":null," + descriptionOf("\"sdURL\":\"a\"").mid(1), {});
    row("best first", descriptionOf(R"("ldURL":"l","hd1080URL":"h","hqURL":"q")"),
        {QStringLiteral("hd1080 h"), QStringLiteral("hq q"), QStringLiteral("ld l")});
    row("decoded", descriptionOf(R"("sdURL":"http\\x3a\\x2f\\x2fh%2fa")"),
        {QStringLiteral("sd http://h/a")});
    row("no address", descriptionOf(R"("sdURL":"","ldURL":null)"), {});
    row("not the video", descriptionOf(R"("sdURL":"a")").replace("video", "audio"), {});
    row("no lists", R"({"sequence":{"layerList":[]}})", {});
    row("nested too deeply", QByteArray(100000, '['), {});
}

void tst_PlayerDescription::streams()
{
    QFETCH(QByteArray, description);
    QTEST(namesOf(PlayerDescription::streams(description)), "expected");
}

CLIPWEIR_TEST_MAIN(tst_PlayerDescription)
#include "tst_playerdescription.moc"
