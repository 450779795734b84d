#include "HdsRun.h"
#include "PrivateFolder.h"
#include "ScriptedServer.h"
#include "TestMain.h"
#include "XPathDocument.h"

namespace {

HttpReply redirectTo(const QByteArray &address)
{
    HttpReply reply;
    reply.status = 302;
    reply.headers = {{"Location", address}};
    return reply;
}

QByteArray filled(QByteArray text, const QString &address)
{
    return text.replace("%1", address.toUtf8()).replace("%B", hds::simpleBootstrap(2).toBase64());
}

} // namespace

/// A stream whose server names files of this machine wherever it can name an address.
class tst_HdsLocalFiles : public QObject
{
    Q_OBJECT

    PrivateFolder m_private;

    static void row(const char *name, const char *manifest, bool isTakenOnTheWeb = true)
    {
        QTest::newRow(name) << QByteArray(manifest) << isTakenOnTheWeb;
    }

private slots:
    void manifests_data()
    {
        QTest::addColumn<QByteArray>("manifest");
        QTest::addColumn<bool>("isTakenOnTheWeb");
        row("media", "<manifest><bootstrapInfo>%B</bootstrapInfo><media url='%1'/></manifest>");
        row("base address",
            "<manifest><baseUrl>%1</baseUrl><bootstrapInfo url='b'/><media url='s'/></manifest>");
        row("bootstrap", "<manifest><bootstrapInfo url='%1'/><media url='s'/></manifest>");
        row("child", "<manifest><media href='%1'/></manifest>");
        row("entity",
            "<!DOCTYPE m [<!ENTITY e SYSTEM '%1'>]><manifest><bootstrapInfo>&e;</bootstrapInfo>"
            "<media url='s'/></manifest>",
            false);
        row("parameter entity",
            "<!DOCTYPE m [<!ENTITY % e SYSTEM '%1'>%e;]><manifest><media url='s'/></manifest>",
            false);
        row("document type", "<!DOCTYPE m SYSTEM '%1'><manifest><media url='s'/></manifest>",
            false);
        row("style", "<?xml-stylesheet href='%1'?><manifest><media url='s'/></manifest>", false);
        row("schema",
            "<manifest xmlns:x='http://www.w3.org/2001/XMLSchema-instance' x:schemaLocation="
            "'a %1'><media url='s'/></manifest>",
            false);
        row("query in a namespace",
            "<manifest xmlns=\"&quot;; doc('%1')\"><media url='s'/></manifest>", false);
        row("query in an identifier",
            "<manifest><bootstrapInfo id='a'>x</bootstrapInfo>"
            "<media url='s' bootstrapinfoid='&quot; or doc(\"%1\") or &quot;'/></manifest>",
            false);
        row("query in an attribute's name", "<manifest><media url='s' a='doc(\"%1\")'/></manifest>",
            false);
    }

    void manifests()
    {
        QFETCH(QByteArray, manifest);
        QFETCH(bool, isTakenOnTheWeb);
        ScriptedServer server;
        const QString file = m_private.address(QStringLiteral("f"));
        server.on("/file/m.f4m", replyOf(filled(manifest, file)));
        server.on("/web/m.f4m", replyOf(filled(manifest, server.address("/named/x"))));
        HdsRun run;
        run.run(server.address("/file/m.f4m"));
        QCOMPARE(m_private.opened(), QStringList());
        QVERIFY(!run.output().contains("private"));
        HdsRun web;
        web.run(server.address("/web/m.f4m"));
        bool isTaken = false;
        for (const HttpRequest &request : server.requests())
            isTaken = isTaken || request.target.startsWith("/named/");
        QCOMPARE(isTaken, isTakenOnTheWeb);
    }

    void redirects_data()
    {
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("manifest") << QByteArray("/m.f4m");
        QTest::newRow("bootstrap") << QByteArray("/b");
        QTest::newRow("fragment") << QByteArray("/sSeg1-Frag1");
    }

    void redirects()
    {
        QFETCH(QByteArray, path);
        ScriptedServer server;
        server.on("/m.f4m",
                  replyOf("<manifest><bootstrapInfo url='b'/><media url='s'/></manifest>"));
        server.on("/b", replyOf(hds::simpleBootstrap(2).toBase64()));
        server.on("/sSeg1-Frag1", replyOf(hds::numberedFragment(1)));
        server.on("/sSeg1-Frag2", replyOf(hds::numberedFragment(2)));
        server.on(path, redirectTo(m_private.address(QStringLiteral("f")).toUtf8()));
        HdsRun run;
        run.run(server.address("/m.f4m"));
        QVERIFY(!server.requestsFor(path).isEmpty());
        QCOMPARE(m_private.opened(), QStringList());
        QVERIFY(!run.output().contains("private"));
    }

    void aManifestThatIsAFile()
    {
        HdsRun run;
        QCOMPARE(run.run(m_private.address(QStringLiteral("m.f4m"))), 0);
        QCOMPARE(m_private.opened(), QStringList());
    }

    void queries_data()
    {
        QTest::addColumn<QString>("query");
        for (const char *const query :
             {"doc('%1')", "doc-available('%1')", "document('%1')", "unparsed-text('%1')",
              "unparsed-text-available('%1')", "collection('%1')", "fn:doc('%1')//text()",
              "import module namespace m='m' at '%1'; 1", "//a[doc('%1')]"})
            QTest::newRow(query) << QString::fromLatin1(query);
    }

    void queries()
    {
        QFETCH(QString, query);
        const QString file = m_private.address(QStringLiteral("f"));
        XPathDocument document(QStringLiteral("<a>x</a>"));
        const QStringList found = document.strings(query.replace(QLatin1String("%1"), file));
        QVERIFY(!found.join(QLatin1Char(' ')).contains(QLatin1String("private")));
        QCOMPARE(m_private.opened(), QStringList());
    }
};

CLIPWEIR_TEST_MAIN(tst_HdsLocalFiles)
#include "tst_hdslocalfiles.moc"
