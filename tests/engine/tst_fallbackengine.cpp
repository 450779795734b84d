#include "FakeEngine.h"
#include "FallbackEngine.h"
#include "TestMain.h"

#include <QSignalSpy>

namespace {

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

} // namespace

/// When a page goes over to the other engine, and when it stays.
class tst_FallbackEngine : public QObject
{
    Q_OBJECT

    /// An engine of two, whose parts the test plays.
    struct Pair
    {
        FakeEngine *first = new FakeEngine;
        FakeEngine *second = nullptr;
        bool hasCandidate = false;
        FallbackEngine engine{std::unique_ptr<PageEngine>(first), [this] {
                                  auto made = std::make_unique<FakeEngine>();
                                  second = made.get();
                                  return made;
                              }};
        QSignalSpy loaded{&engine, &PageEngine::loaded};
        QSignalSpy snapshots{&engine, &PageEngine::snapshot};

        Pair()
        {
            engine.setCandidateCheck([this] { return hasCandidate; });
            engine.load(QUrl(text("http://page.test/")));
        }
    };

private slots:
    void initTestCase() { qRegisterMetaType<PageSnapshot>(); }

    void aPageThatWantsMoreGoesOver()
    {
        Pair pair;
        pair.engine.setProxy(QNetworkProxy(QNetworkProxy::Socks5Proxy, text("127.0.0.1"), 9));
        const auto calls = pair.first->calls();
        emit pair.first->outgrown(text("SyntaxError"));
        QVERIFY(!pair.second); // the first one may stand in its own code
        QTRY_VERIFY(pair.second);
        QVERIFY(calls->contains(text("stop")));
        QCOMPARE(*pair.second->calls(),
                 (QStringList{text("setProxy"), text("load http://page.test/")}));
        QCOMPARE(pair.second->proxy().port(), quint16(9));
        QCOMPARE(pair.loaded.size(), 0);
        emit pair.second->loaded(true);
        QCOMPARE(pair.loaded.size(), 1);
        QSignalSpy requests(&pair.engine, &PageEngine::requestSeen);
        emit pair.second->requestSeen(text("http://page.test/v"));
        QCOMPARE(requests.size(), 1);
    }

    void itGoesOverOnce()
    {
        Pair pair;
        emit pair.first->outgrown(text("a"));
        emit pair.first->outgrown(text("b"));
        QTRY_VERIFY(pair.second);
        FakeEngine *const second = pair.second;
        emit second->outgrown(text("c"));
        QTest::qWait(0);
        QCOMPARE(pair.second, second);
    }

    void aPageWithACandidateStays()
    {
        Pair pair;
        pair.hasCandidate = true;
        emit pair.first->outgrown(text("SyntaxError"));
        emit pair.first->loaded(true);
        QCOMPARE(pair.loaded.size(), 1);
        QTest::qWait(0);
        QVERIFY(!pair.second);
    }

    void aQuietPageIsLookedThroughAndGoesOver()
    {
        Pair pair;
        PageSnapshot snapshot;
        snapshot.source = text("<p>nothing</p>");
        pair.first->answerWith(snapshot);
        const auto calls = pair.first->calls();
        emit pair.first->loaded(true);
        QCOMPARE(pair.loaded.size(), 0);
        QTRY_VERIFY_WITH_TIMEOUT(pair.second, 20000);
        QCOMPARE(pair.snapshots.size(), 1);
        QVERIFY(calls->indexOf(text("requestSnapshot")) < calls->indexOf(text("stop")));
    }

    /// What the document shows counts as well.
    void aQuietPageWhoseDocumentHasACandidateStays()
    {
        Pair pair;
        pair.first->answerWith({});
        connect(&pair.engine, &PageEngine::snapshot, &pair.engine,
                [&pair] { pair.hasCandidate = true; });
        emit pair.first->loaded(false);
        QTRY_COMPARE_WITH_TIMEOUT(pair.loaded.size(), 1, 20000);
        QCOMPARE(pair.loaded.first().first().toBool(), false);
        QTest::qWait(0);
        QVERIFY(!pair.second);
    }

    void aCandidateAfterTheLoadEndsTheWait()
    {
        Pair pair;
        emit pair.first->loaded(true);
        emit pair.first->requestSeen(text("http://page.test/script"));
        QCOMPARE(pair.loaded.size(), 0);
        pair.hasCandidate = true;
        emit pair.first->replySeen(text("http://page.test/v.mp4"), 1 << 20, text("video/mp4"));
        QCOMPARE(pair.loaded.size(), 1);
    }

    /// A scan waits in event loops of its own, in which anything may come.
    void aWishDuringASnapshotWaitsForItsEnd()
    {
        Pair pair;
        pair.first->answerWith({});
        bool wasEarly = false;
        connect(&pair.engine, &PageEngine::snapshot, &pair.engine, [&] {
            emit pair.first->outgrown(text("SyntaxError"));
            QTest::qWait(20);
            wasEarly = pair.second != nullptr;
        });
        pair.engine.requestSnapshot();
        QVERIFY(!wasEarly);
        QTRY_VERIFY(pair.second);
    }

    void aStoppedOneStays()
    {
        Pair pair;
        emit pair.first->outgrown(text("SyntaxError"));
        pair.engine.stop();
        QTest::qWait(0);
        QVERIFY(!pair.second);
        pair.engine.close();
        QVERIFY(pair.first->calls()->contains(text("close")));
    }
};

CLIPWEIR_TEST_MAIN(tst_FallbackEngine)
#include "tst_fallbackengine.moc"
