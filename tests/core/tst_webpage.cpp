#include "QWebPageProxy.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QSignalSpy>
#include <QWebFrame>

class tst_WebPage : public QObject
{
    Q_OBJECT

    static HttpReply html(const QByteArray &text)
    {
        HttpReply reply;
        reply.headers = {{"Content-Type", "text/html"}};
        reply.body = text;
        return reply;
    }

private slots:
    void loadsWithTheFixedUserAgent()
    {
        ScriptedServer server;
        server.on("/", html("<p>x"));
        QWebPageProxy page;
        QSignalSpy loaded(&page, &QWebPageProxy::pageLoadState);
        page.load(server.url("/"));
        QTRY_COMPARE(loaded.count(), 1);
        QCOMPARE(loaded.first().first().toBool(), true);
        QCOMPARE(server.requests().first().header("User-Agent"),
                 QByteArray("Mozilla/5.0 (Windows NT 6.1; WOW64) AppleWebKit/535.2 (KHTML, like "
                            "Gecko) Chrome/15.0.874.121 Safari/535.2"));
    }

    void reportsAFailedLoad()
    {
        QWebPageProxy page;
        QSignalSpy loaded(&page, &QWebPageProxy::pageLoadState);
        page.load(QUrl(QStringLiteral("http://127.0.0.1:1/")));
        QTRY_COMPARE(loaded.count(), 1);
        QCOMPARE(loaded.first().first().toBool(), false);
    }

    void scriptDialogsNeverWait()
    {
        QWebPageProxy page;
        QWebFrame *const frame = page.mainFrame();
        frame->evaluateJavaScript(QStringLiteral("alert('a')"));
        QCOMPARE(frame->evaluateJavaScript(QStringLiteral("confirm('b')")), QVariant(true));
        const QVariant answer = frame->evaluateJavaScript(QStringLiteral("prompt('c', 'd') || ''"));
        QCOMPARE(answer.toString(), QString());
        frame->evaluateJavaScript(QStringLiteral("console.log('e')"));
        QVERIFY(!page.shouldInterruptJavaScript());
    }

    void stoppedScriptsDoNotSeeThePageGo_data()
    {
        QTest::addColumn<bool>("areStopped");
        QTest::newRow("going on") << false;
        QTest::newRow("stopped") << true;
    }

    void stoppedScriptsDoNotSeeThePageGo()
    {
        QFETCH(bool, areStopped);
        ScriptedServer server;
        server.on("/", html("<script>onunload=function(){new Image().src='/gone'}</script>"));
        QWebPageProxy page;
        QSignalSpy loaded(&page, &QWebPageProxy::pageLoadState);
        page.load(server.url("/"));
        QTRY_COMPARE(loaded.count(), 1);
        if (areStopped)
            page.stopScripts();
        page.load(QUrl(QStringLiteral("about:blank")));
        page.load(server.url("/after"));
        QTRY_COMPARE(server.requestsFor("/after").size(), 1);
        if (!areStopped)
            QTRY_COMPARE(server.requestsFor("/gone").size(), 1);
        QCOMPARE(server.requestsFor("/gone").isEmpty(), areStopped);
    }
};

CLIPWEIR_TEST_MAIN(tst_WebPage)
#include "tst_webpage.moc"
