#include "FlashVersion.h"
#include "ScriptedServer.h"
#include "TestMain.h"

#include <QProcess>
#include <QResource>
#include <QTemporaryDir>
#include <QWebSettings>

#include <memory>

// The macros cannot stand inside a namespace.
static void removeOwnPage()
{
    Q_CLEANUP_RESOURCE(flashver);
}

static void restoreOwnPage()
{
    Q_INIT_RESOURCE(flashver);
}

namespace {

constexpr int waitMs = 30000;
const char exportText[] = "module.exports=swfobject;";

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

bool write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

/// Puts another page in the place of the program's own while it lives.
class OtherPage final
{
public:
    explicit OtherPage(const QByteArray &html)
    {
        removeOwnPage();
        const QString source = m_folder.filePath(u("page.qrc"));
        m_resource = m_folder.filePath(u("page.rcc"));
        m_isReady = write(m_folder.filePath(u("flashver.htm")), html)
            && write(source,
                     "<RCC><qresource prefix='/res'><file>flashver.htm</file></qresource></RCC>")
            && QProcess::execute(u(RCC_PROGRAM), {u("--binary"), u("-o"), m_resource, source}) == 0
            && QResource::registerResource(m_resource);
    }
    ~OtherPage()
    {
        QResource::unregisterResource(m_resource);
        restoreOwnPage();
    }
    Q_DISABLE_COPY(OtherPage)

    [[nodiscard]] bool isReady() const { return m_isReady; }

private:
    QTemporaryDir m_folder;
    QString m_resource;
    bool m_isReady = false;
};

} // namespace

class tst_FlashVersion : public QObject
{
    Q_OBJECT

private slots:
    void withoutAPlugin();
    void switchesTheEngineOn();
    void theSignalComesAfterLoad();
    void aFailedLoadIsReadToo();
    void pageHoldsTheWholeLibrary();
    void pageIsCompressed();
    void aPageThatNeverFinishesLeavesTheVersionEmpty();
    void aPageThatFinishesLateIsRead();
    void textIsTrimmed();
    void emptyPageGivesAnEmptyVersion();
};

void tst_FlashVersion::withoutAPlugin()
{
    CFlashVersion probe;
    QCOMPARE(probe.getVersion(), QString());
    QSignalSpy spy(&probe, &CFlashVersion::versionInfoReady);
    probe.load();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVersion(), u("0.0.0"));
    QCOMPARE(spy.count(), 1);
}

void tst_FlashVersion::switchesTheEngineOn()
{
    const QList<QWebSettings::WebAttribute> attributes{
        QWebSettings::AutoLoadImages,           QWebSettings::DnsPrefetchEnabled,
        QWebSettings::JavascriptEnabled,        QWebSettings::PluginsEnabled,
        QWebSettings::JavascriptCanOpenWindows, QWebSettings::ZoomTextOnly};
    QWebSettings *const settings = QWebSettings::globalSettings();
    settings->setDefaultTextEncoding(u("ISO-8859-1"));
    for (const auto attribute : attributes)
        settings->setAttribute(attribute, false);
    CFlashVersion probe;
    probe.load();
    for (const auto attribute : attributes)
        QVERIFY2(settings->testAttribute(attribute), qPrintable(QString::number(attribute)));
    QCOMPARE(settings->defaultTextEncoding(), u("UTF-8"));
}

void tst_FlashVersion::theSignalComesAfterLoad()
{
    CFlashVersion probe;
    QSignalSpy spy(&probe, &CFlashVersion::versionInfoReady);
    probe.load();
    QCOMPARE(spy.count(), 0);
    QCOMPARE(probe.getVersion(), QString());
    QVERIFY(spy.wait(waitMs));
}

void tst_FlashVersion::aFailedLoadIsReadToo()
{
    CFlashVersion probe;
    QSignalSpy spy(&probe, &CFlashVersion::versionInfoReady);
    probe.load();
    QVERIFY(spy.wait(waitMs));
    QVERIFY(QMetaObject::invokeMethod(&probe, "finishLoading", Q_ARG(bool, false)));
    QCOMPARE(spy.count(), 2);
    QCOMPARE(probe.getVersion(), u("0.0.0"));
}

void tst_FlashVersion::pageHoldsTheWholeLibrary()
{
    QFile file(u(SWFOBJECT_FILE));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QString library = QString::fromLatin1(file.readAll());
    QVERIFY(library.trimmed().endsWith(u(exportText)));
    library.truncate(library.lastIndexOf(u(exportText)));
    QVERIFY(library.contains(u("SWFObject v2.2")));

    const QString page = CFlashVersion().loadHtml();
    QCOMPARE(page.count(library), 1);
    QVERIFY(!page.contains(u(exportText)));
    QVERIFY(page.indexOf(library) < page.indexOf(u("</head>")));
    QVERIFY(page.indexOf(u("swfobject.getFlashPlayerVersion()")) > page.indexOf(u("<body>")));
}

void tst_FlashVersion::pageIsCompressed()
{
    const QString page = CFlashVersion().loadHtml();
    const QResource resource(u(":/res/flashver.htm"));
    QVERIFY(resource.isValid());
    QCOMPARE(resource.compressionAlgorithm(), QResource::ZlibCompression);
    QVERIFY(resource.size() < page.size());
}

void tst_FlashVersion::aPageThatNeverFinishesLeavesTheVersionEmpty()
{
    ScriptedServer server;
    server.hold("/picture");
    const OtherPage page("<body>1.2.3<img src='" + server.url("/picture").toEncoded()
                         + "'></body>");
    QVERIFY(page.isReady());
    CFlashVersion probe;
    QSignalSpy spy(&probe, &CFlashVersion::versionInfoReady);
    probe.load();
    QTRY_COMPARE_WITH_TIMEOUT(server.requests().size(), 1, waitMs);
    QCOMPARE(spy.count(), 0);
    QCOMPARE(probe.getVersion(), QString());
}

void tst_FlashVersion::aPageThatFinishesLateIsRead()
{
    ScriptedServer server;
    QPointer<QTcpSocket> waiting;
    server.onRaw("/picture",
                 [&waiting](const HttpRequest &, QTcpSocket *socket) { waiting = socket; });
    const OtherPage page("<body>1.2.3<img src='" + server.url("/picture").toEncoded()
                         + "'></body>");
    QVERIFY(page.isReady());
    CFlashVersion probe;
    QSignalSpy spy(&probe, &CFlashVersion::versionInfoReady);
    probe.load();
    QTRY_VERIFY_WITH_TIMEOUT(waiting, waitMs);
    QCOMPARE(spy.count(), 0);
    waiting->write("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), 1, waitMs);
    QCOMPARE(probe.getVersion(), u("1.2.3"));
}

void tst_FlashVersion::textIsTrimmed()
{
    const OtherPage page("<body><pre>\n\n  1.2.3\t \n</pre></body>");
    QVERIFY(page.isReady());
    CFlashVersion probe;
    QSignalSpy spy(&probe, &CFlashVersion::versionInfoReady);
    probe.load();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVersion(), u("1.2.3"));
}

void tst_FlashVersion::emptyPageGivesAnEmptyVersion()
{
    const OtherPage page("");
    QVERIFY(page.isReady());
    CFlashVersion probe;
    QSignalSpy spy(&probe, &CFlashVersion::versionInfoReady);
    probe.load();
    QVERIFY(spy.wait(waitMs));
    QCOMPARE(probe.getVersion(), QString());
}

CLIPWEIR_TEST_MAIN(tst_FlashVersion)
#include "tst_flashversion.moc"
