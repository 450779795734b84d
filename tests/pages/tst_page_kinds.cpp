// Whole runs of the kinds of pages that play video today.

#include "PageKind.h"
#include "TestMain.h"

class tst_PageKinds : public QObject
{
    Q_OBJECT

private slots:
    void elements_data()
    {
        addPageKinds({
            {"plain video", "plain", "/media/clip.mp4", "clip.mp4", Engines::Both},
            {"sources", "sources", "/media/clip.mp4", "clip.mp4", Engines::Both},
            {"three videos", "three", "/media/film.mp4", "film.mp4", Engines::Both, 3},
            {"shadow document", "shadow", "/watch/clip", "clip.mp4"},
            {"frame of another site", "cross-site-frame", "//watch/clip", "clip.mp4",
             Engines::Both},
        });
    }

    void elements() { runPageKind(); }

    void scripts_data()
    {
        addPageKinds({
            {"module, fetch and await", "module", "/media/clip.mp4", "clip.mp4"},
            {"single page", "single-page", "/media/clip.mp4", "clip.mp4"},
            {"service worker", "service-worker", "/watch/clip", "clip.mp4"},
        });
    }

    void scripts() { runPageKind(); }

    void pieces_data()
    {
        addPageKinds({
            {"by Range", "range-pieces", "/media/fragmented.mp4", "fragmented.mp4"},
            {"by Range, without an extension", "range-pieces-untold", "/watch/fragmented",
             "fragmented.mp4"},
            {"by Range, from a worker", "web-worker", "/watch/fragmented", "fragmented.mp4"},
            {"by a range in the query", "query-range", "/pieces/fragmented", "fragmented.mp4"},
            {"by bytes in the query", "query-bytes", "/pieces/fragmented", "fragmented.mp4"},
        });
    }

    void pieces() { runPageKind(); }

    void persons_data()
    {
        addPageKinds({
            {"a button", "click-button", "/watch/clip", "clip.mp4"},
            {"what has the role of a button", "click-role", "/watch/clip", "clip.mp4"},
            {"a nameless element", "click-named", "/watch/clip", "clip.mp4"},
            {"a video that does not load", "click-video", "/watch/clip", "clip.mp4",
             Engines::Chromium, 1, true},
            {"consent", "consent", "/watch/clip", "clip.mp4"},
            {"consent, then a button", "consent-and-play", "/watch/clip", "clip.mp4"},
            {"a player far down", "lazy", "/watch/clip", "clip.mp4"},
            {"a frame far down", "lazy-frame", "//watch/clip", "clip.mp4"},
        });
    }

    /// What waits for a person.
    void persons() { runPageKind(); }

    void adverts_data()
    {
        addPageKinds({
            {"small", "advert", "/media/film.mp4", "film.mp4", Engines::Chromium, 2},
            {"large", "heavy-advert", "/media/film.mp4", "film.mp4", Engines::Chromium, 2},
        });
    }

    void adverts() { runPageKind(); }

    void servers_data()
    {
        addPageKinds({
            {"Referer demanded", "referer", "//of-the-page/clip.mp4", "clip.mp4"},
            {"cookie of the page demanded", "cookie", "/of-the-visitor/clip.mp4", "clip.mp4"},
            {"cookie of an answer demanded", "session", "/of-the-session/clip.mp4", "clip.mp4"},
            {"signed address", "signed", "/signed/clip.mp4", "clip.mp4"},
            {"no length", "chunked", "/chunked/clip", "clip.mp4"},
        });
    }

    void servers() { runPageKind(); }

    void descriptions_data()
    {
        addPageKinds({
            {"JSON-LD", "json-ld", "/media/clip.mp4", "clip.mp4", Engines::Both, 1, true},
            {"og:video", "og-video", "/media/clip.mp4", "clip.mp4", Engines::Both, 1, true},
        });
    }

    /// What only the source tells.
    void descriptions() { runPageKind(); }
};

CLIPWEIR_TEST_MAIN(tst_PageKinds)
#include "tst_page_kinds.moc"
