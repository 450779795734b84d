// The engine looks for plug-ins once in a process, so what needs one is apart from
// tst_flashversion.

#include "FlashVersion.h"
#include "PluginGuard.h"
#include "TestMain.h"

#include <QWebFrame>
#include <QWebPage>
#include <QWebSettings>
#include <QWebView>

namespace {

constexpr int waitMs = 30000;

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

} // namespace

class tst_FlashPlugin : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void probeFindsThePlugin();
    void pagesSeeThePlugin();
    void embeddedPluginIsReplaced_data();
    void embeddedPluginIsReplaced();
};

void tst_FlashPlugin::initTestCase()
{
    qputenv("QTWEBKIT_PLUGIN_PATH", TEST_PLUGIN_DIR);
    QWebSettings::globalSettings()->setAttribute(QWebSettings::PluginsEnabled, true);
}

void tst_FlashPlugin::probeFindsThePlugin()
{
    CFlashVersion probe;
    QSignalSpy spy(&probe, &CFlashVersion::versionInfoReady);
    probe.load();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVersion(), u("32.0.465"));
}

void tst_FlashPlugin::pagesSeeThePlugin()
{
    QWebPage page;
    page.setPluginFactory(new PluginGuard(&page));
    QCOMPARE(page.mainFrame()
                 ->evaluateJavaScript(u("navigator.plugins['Shockwave Flash'].description"))
                 .toString(),
             u("Shockwave Flash 32.0 r465"));
}

void tst_FlashPlugin::embeddedPluginIsReplaced_data()
{
    QTest::addColumn<QString>("element");
    QTest::newRow("object") << u(
        "<object type='application/x-shockwave-flash' data='a.swf'></object>");
    QTest::newRow("embed") << u("<embed type='application/x-shockwave-flash' src='a.swf'>");
    QTest::newRow("by suffix") << u("<embed src='a.swf'>");
}

void tst_FlashPlugin::embeddedPluginIsReplaced()
{
    QVERIFY(QGuiApplication::platformName() != u("xcb"));
    QFETCH(QString, element);
    QWebView view;
    view.page()->setPluginFactory(new PluginGuard(view.page()));
    QSignalSpy spy(&view, &QWebView::loadFinished);
    view.setHtml(u("<body>before ") + element + u(" after</body>"));
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, waitMs);
    QCOMPARE(view.page()->mainFrame()->toPlainText().simplified(), u("before after"));
    view.setHtml(u("<body>gone</body>"));
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 2, waitMs);
}

CLIPWEIR_TEST_MAIN(tst_FlashPlugin)
#include "tst_flashplugin.moc"
