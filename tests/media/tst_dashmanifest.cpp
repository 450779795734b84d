#include "DashManifest.h"
#include "DashSource.h"
#include "DashTemplate.h"
#include "TestMain.h"

#include <QElapsedTimer>
#include <QSignalSpy>

namespace {

const QUrl address(QStringLiteral("http://h.test/a/b/m.mpd?token=1"));

/// A manifest of one period with what is given inside it.
QByteArray manifestOf(const QByteArray &period,
                      const QByteArray &attributes = "type=\"static\" "
                                                     "mediaPresentationDuration=\"PT10S\"")
{
    return "<?xml version=\"1.0\"?><MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" " + attributes
        + "><Period>" + period + "</Period></MPD>";
}

/// A picture whose segments are told by that.
QByteArray pictureOf(const QByteArray &segments)
{
    return "<AdaptationSet mimeType=\"video/mp4\"><Representation id=\"v\" bandwidth=\"1000\" "
           "width=\"320\" height=\"180\" codecs=\"avc1.4d400c\">"
        + segments + "</Representation></AdaptationSet>";
}

std::optional<DashManifest> parse(const QByteArray &document, DashManifest::Fault *why = nullptr)
{
    DashManifest::Fault fault;
    const std::optional<DashManifest> manifest = DashManifest::parse(document, address, fault);
    if (why)
        *why = fault;
    return manifest;
}

/// The track of the first representation of every period; null when there are too many segments.
std::unique_ptr<DashSource> trackOf(const DashManifest &manifest)
{
    auto track = std::make_unique<DashSource>();
    for (int i = 0; i < manifest.periods.size(); ++i) {
        DashSource::Part part;
        part.run = i;
        part.period = &manifest.periods.at(i);
        part.representation = &part.period->representations.first();
        if (!track->extend(part))
            return nullptr;
    }
    track->publish(true);
    return track;
}

/// The track's segments, each as its address behind the manifest's folder, with its range.
QStringList segmentsOf(const DashSource &track)
{
    QStringList all;
    for (qint64 n = track.first(); n <= track.last(); ++n) {
        const TrackSegment one = track.trackSegment(n);
        QString text = one.segment.address;
        text.remove(QStringLiteral("http://h.test/a/b/"));
        if (one.segment.byteCount > 0)
            text += QStringLiteral("@%1+%2").arg(one.segment.firstByte).arg(one.segment.byteCount);
        all += text;
    }
    return all;
}

QStringList segmentsOf(const QByteArray &document)
{
    const std::optional<DashManifest> manifest = parse(document);
    if (!manifest)
        return {QStringLiteral("refused")};
    const std::unique_ptr<DashSource> track = trackOf(*manifest);
    return track ? segmentsOf(*track) : QStringList{QStringLiteral("too many")};
}

} // namespace

class tst_DashManifest : public QObject
{
    Q_OBJECT

private slots:
    void namesSegments_data();
    void namesSegments();
    void tellsTimes();
    void expandsTemplates_data();
    void expandsTemplates();
    void readsDurations_data();
    void readsDurations();
    void readsRenditions();
    void keepsAlternativeBases();
    void knowsProtection();
    void refuses_data();
    void refuses();
    void survivesEveryCut();
    void boundsWhatIsHuge_data();
    void boundsWhatIsHuge();
    void addsUpLongPeriods();
    void keepsPeriodsOfOneName();
    void followsAWindow();
    void followsTheClock();
    void readsIndexes();
    void refusesIndexes();
};

void tst_DashManifest::namesSegments_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<QStringList>("segments");
    const auto row = [](const char *name, const QByteArray &document, const char *segments) {
        QTest::newRow(name) << document << QString::fromLatin1(segments).split(QLatin1Char(' '));
    };
    row("numbers",
        manifestOf(pictureOf("<SegmentTemplate media=\"$RepresentationID$-$Number%03d$.m4s\" "
                             "initialization=\"i$Bandwidth$.mp4\" duration=\"4\"/>")),
        "i1000.mp4 v-001.m4s v-002.m4s v-003.m4s");
    row("numbers that fill the duration exactly",
        manifestOf(pictureOf("<SegmentTemplate media=\"$Number$\" duration=\"5\" "
                             "startNumber=\"0\"/>")),
        "0 1");
    row("an end that is told",
        manifestOf(pictureOf("<SegmentTemplate media=\"$Number$\" duration=\"1\" "
                             "startNumber=\"3\" endNumber=\"5\"/>")),
        "3 4 5");
    row("a timeline",
        manifestOf(pictureOf("<SegmentTemplate media=\"$Time$-$Number$\" timescale=\"10\">"
                             "<SegmentTimeline><S t=\"5\" d=\"20\" r=\"1\"/><S d=\"7\"/>"
                             "<S t=\"60\" d=\"10\"/></SegmentTimeline></SegmentTemplate>")),
        "5-1 25-2 45-3 60-4");
    row("a timeline that repeats to the next",
        manifestOf(pictureOf("<SegmentTemplate media=\"$Time$\"><SegmentTimeline>"
                             "<S t=\"0\" d=\"2\" r=\"-1\"/><S t=\"6\" d=\"2\"/>"
                             "<S t=\"8\" d=\"1\" r=\"-1\"/></SegmentTimeline></SegmentTemplate>")),
        "0 2 4 6 8 9");
    row("inherited from the set",
        manifestOf("<AdaptationSet mimeType=\"video/mp4\"><SegmentTemplate media=\"$Number$\" "
                   "duration=\"10\"/><Representation id=\"x\"><SegmentTemplate "
                   "startNumber=\"7\"/></Representation></AdaptationSet>"),
        "7");
    row("a list",
        manifestOf(pictureOf("<SegmentList duration=\"5\"><Initialization sourceURL=\"i\"/>"
                             "<SegmentURL media=\"one\"/><SegmentURL media=\"two\"/>"
                             "</SegmentList>")),
        "i one two");
    row("a list of ranges",
        manifestOf(pictureOf("<BaseURL>f.mp4</BaseURL><SegmentList duration=\"5\">"
                             "<Initialization range=\"0-99\"/><SegmentURL mediaRange=\"100-199\"/>"
                             "<SegmentURL mediaRange=\"200-200\"/></SegmentList>")),
        "f.mp4@0+100 f.mp4@100+100 f.mp4@200+1");
    row("one file", manifestOf(pictureOf("<BaseURL>f.mp4</BaseURL>")), "f.mp4");
    row("one file whose index is of no use",
        manifestOf(pictureOf("<BaseURL>f.mp4</BaseURL><SegmentBase indexRange=\"5-9\"/>")),
        "f.mp4");
    row("bases at every level",
        "<MPD mediaPresentationDuration=\"PT1S\"><BaseURL>one/</BaseURL><Period><BaseURL>two/"
        "</BaseURL><AdaptationSet mimeType=\"video/mp4\"><BaseURL>three/</BaseURL>"
        "<Representation id=\"v\"><BaseURL>four/</BaseURL><SegmentTemplate media=\"$Number$\" "
        "duration=\"1\"/></Representation></AdaptationSet></Period></MPD>",
        "one/two/three/four/1");
    row("an absolute base",
        manifestOf(pictureOf("<BaseURL>https://c.test/x/</BaseURL><SegmentTemplate "
                             "media=\"$Number$\" duration=\"10\"/>")),
        "https://c.test/x/1");
    row("several periods",
        "<MPD mediaPresentationDuration=\"PT3S\"><Period duration=\"PT1S\">"
            + pictureOf(
                "<SegmentTemplate media=\"a$Number$\" initialization=\"i\" duration=\"1\"/>")
            + "</Period><Period>"
            + pictureOf(
                "<SegmentTemplate media=\"b$Number$\" initialization=\"j\" duration=\"1\"/>")
            + "</Period></MPD>",
        "i a1 j b1 b2");
    row("the same beginning in both periods",
        "<MPD mediaPresentationDuration=\"PT2S\"><Period duration=\"PT1S\">"
            + pictureOf(
                "<SegmentTemplate media=\"a$Number$\" initialization=\"i\" duration=\"1\"/>")
            + "</Period><Period>"
            + pictureOf(
                "<SegmentTemplate media=\"b$Number$\" initialization=\"i\" duration=\"1\"/>")
            + "</Period></MPD>",
        "i a1 b1");
    row("any prefix",
        "<x:MPD xmlns:x=\"urn:mpeg:dash:schema:mpd:2011\" mediaPresentationDuration=\"PT1S\">"
        "<x:Period><x:AdaptationSet mimeType='video/mp4'><x:Representation id='v'>"
        "<x:SegmentTemplate media='$Number$' duration='1'/></x:Representation></x:AdaptationSet>"
        "</x:Period></x:MPD>",
        "1");
}

void tst_DashManifest::namesSegments()
{
    QFETCH(QByteArray, document);
    QTEST(segmentsOf(document), "segments");
}

void tst_DashManifest::tellsTimes()
{
    const std::optional<DashManifest> manifest =
        parse("<MPD mediaPresentationDuration=\"PT20S\"><Period duration=\"PT10S\">"
              + pictureOf("<SegmentTemplate media=\"$Time$\" timescale=\"90000\" "
                          "presentationTimeOffset=\"900000\" duration=\"450000\"/>")
              + "</Period><Period>"
              + pictureOf("<SegmentTemplate media=\"$Time$\" timescale=\"10\" "
                          "presentationTimeOffset=\"30\"><SegmentTimeline><S t=\"25\" d=\"100\"/>"
                          "</SegmentTimeline></SegmentTemplate>")
              + "</Period></MPD>");
    QVERIFY(manifest);
    const std::unique_ptr<DashSource> track = trackOf(*manifest);
    QCOMPARE(
        segmentsOf(*track),
        QStringList({QStringLiteral("900000"), QStringLiteral("1350000"), QStringLiteral("25")}));
    const TrackSegment second = track->trackSegment(1);
    QCOMPARE(second.startUs, 5000000);
    QCOMPARE(second.durationUs, 5000000);
    QCOMPARE(second.clockZeroUs, 10000000);
    QVERIFY(second.isClockKnown && second.segment.mayBeAbsent);
    QVERIFY(!track->trackSegment(0).segment.mayBeAbsent);
    const TrackSegment third = track->trackSegment(2);
    QCOMPARE(third.run, 1);
    QCOMPARE(third.startUs, 9500000);
    QCOMPARE(third.clockZeroUs, -7000000);
    QVERIFY(!third.segment.mayBeAbsent); // the timeline names it
}

void tst_DashManifest::keepsPeriodsOfOneName()
{
    const QByteArray period = "<Period id=\"a\" duration=\"PT1S\">"
        + pictureOf("<SegmentTemplate media=\"$Number$\" duration=\"1\"/>") + "</Period>";
    const auto manifest = parse("<MPD type=\"static\">" + period.repeated(2) + "</MPD>");
    QVERIFY(manifest);
    QCOMPARE(manifest->periods.size(), 2);
    QCOMPARE(manifest->periods.at(0).id, QStringLiteral("a"));
    QCOMPARE(manifest->periods.at(1).id, QString());
    QCOMPARE(manifest->periods.at(1).startUs, 1000000);
}

void tst_DashManifest::expandsTemplates_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expanded");
    const auto row = [](const char *text, const char *expanded) {
        QTest::newRow(text) << QString::fromLatin1(text) << QString::fromLatin1(expanded);
    };
    row("plain", "plain");
    row("$$", "$");
    row("$RepresentationID$/$Number$", "id/42");
    row("$Number%05d$", "00042");
    row("$Number%01d$", "42");
    row("$Time%032d$", "00000000000000000000000000000007");
    row("$Time%033d$", "");
    row("$Number%02000000000d$", "");
    row("$Number%99999999999999999999d$", "");
    row("$Number%5d$", "");
    row("$Number%0d$", "");
    row("$Number%0xd$", "");
    row("$Number%s$", "");
    row("$Bandwidth$", "9");
    row("$SubNumber$", "");
    row("$number$", "");
    row("$Number", "");
    row("$RepresentationID%03d$", "");
}

void tst_DashManifest::expandsTemplates()
{
    QFETCH(QString, text);
    QFETCH(QString, expanded);
    QCOMPARE(DashTemplate::expand(text, {QStringLiteral("id"), 9, 42, 7}), expanded);
    QCOMPARE(DashTemplate::isValid(text), !expanded.isEmpty());
}

void tst_DashManifest::readsDurations_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<qint64>("us");
    const auto row = [](const char *text, qint64 us) {
        QTest::newRow(text) << QString::fromLatin1(text) << us;
    };
    row("PT10S", 10000000);
    row("PT1H2M3.5S", 3723500000);
    row("P1DT1S", 86401000000);
    row("PT0S", 0);
    row("P", 0);
    row("10", -1);
    row("-PT1S", -1);
    row("PT1000000000S", 1000000000000000);
    row("PT999999999999999S", qint64(1) << 60);
    row("PT1e9S", -1);
}

void tst_DashManifest::readsDurations()
{
    QFETCH(QString, text);
    QTEST(DashManifest::durationOf(text), "us");
}

void tst_DashManifest::readsRenditions()
{
    const std::optional<DashManifest> manifest = parse(manifestOf(
        "<AdaptationSet contentType=\"video\" width=\"640\" height=\"360\">"
        "<Representation id=\"a\" bandwidth=\"8000\"/>"
        "<Representation id=\"b\" bandwidth=\"16000\" width=\"1280\" height=\"720\"/>"
        "</AdaptationSet>"
        "<AdaptationSet mimeType=\"video/mp4\"><EssentialProperty "
        "schemeIdUri=\"http://dashif.org/guidelines/trickmode\"/><Representation id=\"t\"/>"
        "</AdaptationSet>"
        "<AdaptationSet mimeType=\"audio/mp4\" lang=\"de\"><Role value=\"main\"/>"
        "<Representation id=\"c\" codecs=\"mp4a.40.2\"/></AdaptationSet>"
        "<AdaptationSet mimeType=\"application/mp4\" codecs=\"stpp\"><Representation id=\"d\"/>"
        "</AdaptationSet>"));
    QVERIFY(manifest);
    const QVector<DashManifest::Representation> &all =
        manifest->periods.constFirst().representations;
    QCOMPARE(all.size(), 5);
    QCOMPARE(all.at(0).rendition.height, 360);
    QCOMPARE(all.at(1).rendition.width, 1280);
    QCOMPARE(all.at(1).rendition.estimatedBytes(), 20000);
    QVERIFY(all.at(2).isForTricks);
    QCOMPARE(all.at(3).rendition.kind, Rendition::Kind::Sound);
    QCOMPARE(all.at(3).rendition.language, QStringLiteral("de"));
    QVERIFY(all.at(3).rendition.isDefault);
    QCOMPARE(all.at(4).rendition.kind, Rendition::Kind::Text);
}

void tst_DashManifest::keepsAlternativeBases()
{
    const std::optional<DashManifest> manifest =
        parse(manifestOf("<BaseURL>http://one.test/</BaseURL><BaseURL>http://two.test/</BaseURL>"
                         + pictureOf("<BaseURL>v/</BaseURL><SegmentTemplate media=\"$Number$\" "
                                     "duration=\"10\"/>")));
    QVERIFY(manifest);
    const TrackSegment segment = trackOf(*manifest)->trackSegment(0);
    QCOMPARE(segment.segment.address, QStringLiteral("http://one.test/v/1"));
    QCOMPARE(segment.segment.otherAddresses, {QStringLiteral("http://two.test/v/1")});

    QByteArray many;
    for (int i = 0; i < 100; ++i)
        many += "<BaseURL>" + QByteArray::number(i) + "/</BaseURL>";
    const std::optional<DashManifest> bounded = parse(manifestOf(many + pictureOf(many)));
    QVERIFY(bounded);
    QCOMPARE(bounded->periods.constFirst().representations.constFirst().bases.size(),
             DashManifest::maxBases);
}

void tst_DashManifest::knowsProtection()
{
    const QByteArray mark = "<ContentProtection schemeIdUri=\"urn:any\"/>";
    const QByteArray set = "<AdaptationSet mimeType=\"video/mp4\">%1<Representation id=\"v\">%2"
                           "</Representation></AdaptationSet>";
    const auto isProtected = [&](const QByteArray &inSet, const QByteArray &inRepresentation) {
        QByteArray period = set;
        period.replace("%1", inSet).replace("%2", inRepresentation);
        return parse(manifestOf(period))
            ->periods.constFirst()
            .representations.constFirst()
            .isProtected;
    };
    QVERIFY(!isProtected("", ""));
    QVERIFY(isProtected(mark, ""));
    QVERIFY(isProtected("", mark));
}

void tst_DashManifest::refuses_data()
{
    QTest::addColumn<QByteArray>("document");
    QTest::addColumn<bool>("isUnsupported");
    QTest::newRow("nothing") << QByteArray() << false;
    QTest::newRow("a page") << QByteArray("<html><body/></html>") << false;
    QTest::newRow("no period") << QByteArray("<MPD/>") << false;
    QTest::newRow("not closed") << QByteArray("<MPD><Period>") << false;
    QTest::newRow("an entity") << QByteArray(
        "<!DOCTYPE MPD [<!ENTITY e SYSTEM \"file:///etc/passwd\">]><MPD><Period>"
        "<BaseURL>&e;</BaseURL></Period></MPD>")
                               << false;
    QTest::newRow("an unknown entity") << manifestOf("<BaseURL>&e;</BaseURL>") << false;
    QTest::newRow("xlink") << QByteArray(
        "<MPD xmlns:x=\"http://www.w3.org/1999/xlink\"><Period x:href=\"p.xml\"/></MPD>")
                           << true;
    QTest::newRow("too deep") << manifestOf(QByteArray("<a>").repeated(40)
                                            + QByteArray("</a>").repeated(40))
                              << false;
    for (const char *const attribute :
         {"timescale=\"0\"", "timescale=\"-1\"", "timescale=\"5000000000\"", "duration=\"-1\"",
          "duration=\"x\"", "startNumber=\"-1\"", "startNumber=\"99999999999999999999\"",
          "media=\"$Number%02000000000d$\"", "media=\"$What$\"",
          "presentationTimeOffset=\"9223372036854775807\""}) {
        const QByteArray text(attribute);
        QTest::newRow(attribute) << manifestOf(pictureOf("<SegmentTemplate " + text + "/>"))
                                 << false;
    }
    for (const char *const step :
         {"<S/>", "<S d=\"0\"/>", "<S d=\"-5\"/>", "<S t=\"-1\" d=\"1\"/>", "<S d=\"1\" r=\"-2\"/>",
          "<S d=\"1\" r=\"1000000\"/>", "<S d=\"200000000000000\" r=\"900000\"/>",
          "<S d=\"1\" r=\"-1\"/><S d=\"1\"/>", "<S t=\"9000000000000000000\" d=\"1\"/>",
          "<S d=\"9000000000000000000\"/>", "<S d=\"1\" r=\"999999\"/><S d=\"1\" r=\"999999\"/>"}) {
        const QByteArray text(step);
        QTest::newRow(step) << manifestOf(pictureOf("<SegmentTemplate><SegmentTimeline>" + text
                                                    + "</SegmentTimeline></SegmentTemplate>"))
                            << false;
    }
    QTest::newRow("a range backwards")
        << manifestOf(pictureOf("<SegmentList><SegmentURL mediaRange=\"5-4\"/></SegmentList>"))
        << false;
    QTest::newRow("no range") << manifestOf(pictureOf("<SegmentBase indexRange=\"here\"/>"))
                              << false;
    QTest::newRow("too many periods") << QByteArray(
        "<MPD>" + QByteArray("<Period/>").repeated(DashManifest::maxPeriods + 1) + "</MPD>")
                                      << false;
    QTest::newRow("too many representations") << manifestOf(
        "<AdaptationSet>"
        + QByteArray("<Representation/>").repeated(DashManifest::maxRepresentations + 1)
        + "</AdaptationSet>") << false;
}

void tst_DashManifest::refuses()
{
    QFETCH(QByteArray, document);
    DashManifest::Fault fault;
    QVERIFY(!parse(document, &fault));
    QVERIFY(!fault.reason.isEmpty());
    QTEST(fault.isUnsupported, "isUnsupported");
}

void tst_DashManifest::survivesEveryCut()
{
    const QByteArray whole = manifestOf(
        pictureOf("<SegmentTemplate media=\"$Time%05d$\" timescale=\"10\"><SegmentTimeline>"
                  "<S t=\"5\" d=\"20\" r=\"-1\"/></SegmentTimeline></SegmentTemplate>"));
    QVERIFY(parse(whole));
    for (int size = 0; size < whole.size(); ++size)
        QVERIFY(!parse(whole.left(size)));
}

void tst_DashManifest::boundsWhatIsHuge_data()
{
    QTest::addColumn<QByteArray>("segments");
    QTest::addColumn<qint64>("count"); // -1 for too many
    QTest::newRow("even, at the limit")
        << QByteArray("media=\"$Number$\" duration=\"1000\"/>") << qint64(1000000);
    QTest::newRow("even, beyond it")
        << QByteArray("media=\"$Number$\" duration=\"999\"/>") << qint64(-1);
    QTest::newRow("even, far beyond")
        << QByteArray("media=\"$Number$\" duration=\"1\"/>") << qint64(-1);
    QTest::newRow("even, longer than times are counted")
        << QByteArray("media=\"$Time$\" timescale=\"4294967295\" duration=\"5000000000000\"/>")
        << qint64(-1);
    QTest::newRow("a timeline that is longer")
        << QByteArray("media=\"$Time$\" timescale=\"4294967295\"><SegmentTimeline>"
                      "<S d=\"5000000000000\" r=\"-1\"/></SegmentTimeline></SegmentTemplate>")
        << qint64(-1);
    QTest::newRow("a timeline to the end")
        << QByteArray("media=\"$Number$\"><SegmentTimeline><S d=\"1\" r=\"-1\"/></SegmentTimeline>"
                      "</SegmentTemplate>")
        << qint64(-1);
}

void tst_DashManifest::boundsWhatIsHuge()
{
    QFETCH(QByteArray, segments);
    QFETCH(qint64, count);
    QElapsedTimer time;
    const std::optional<DashManifest> manifest = parse(manifestOf(
        pictureOf("<SegmentTemplate " + segments), "mediaPresentationDuration=\"PT1000000000S\""));
    QVERIFY(manifest);
    const std::unique_ptr<DashSource> track = trackOf(*manifest);
    QCOMPARE(track ? track->last() + 1 : -1, count);
}

/// However long they are together, none begins before another one.
void tst_DashManifest::addsUpLongPeriods()
{
    const QByteArray period = "<Period duration=\"PT999999999999999S\">"
        + pictureOf("<SegmentTemplate media=\"$Number$\"/>") + "</Period>";
    const auto manifest = parse("<MPD type=\"static\">" + period.repeated(100) + "</MPD>");
    QVERIFY(manifest);
    QCOMPARE(manifest->periods.size(), 100);
    for (int i = 1; i < 100; ++i)
        QVERIFY(manifest->periods.at(i).startUs >= manifest->periods.at(i - 1).startUs);
    QVERIFY(manifest->durationUs > 0);
}

/// The manifest of a live presentation shows a few segments at a time.
void tst_DashManifest::followsAWindow()
{
    const auto windowFrom = [](int number, bool isDynamic) {
        return *parse(
            manifestOf(pictureOf("<SegmentTemplate media=\"$Number$\" startNumber=\""
                                 + QByteArray::number(number) + "\"><SegmentTimeline><S t=\""
                                 + QByteArray::number(number * 2)
                                 + "\" d=\"2\" r=\"2\"/></SegmentTimeline>"
                                   "</SegmentTemplate>"),
                       isDynamic ? "type=\"dynamic\"" : "type=\"static\""));
    };
    DashSource track;
    QSignalSpy changed(&track, &SegmentSource::changed);
    const auto take = [&track](const DashManifest &manifest) {
        DashSource::Part part;
        part.period = &manifest.periods.constFirst();
        part.representation = &part.period->representations.constFirst();
        part.isFinal = !manifest.isDynamic;
        const bool isWithin = track.extend(part);
        track.publish(!manifest.isDynamic);
        return isWithin;
    };
    QVERIFY(take(windowFrom(5, true)));
    QCOMPARE(segmentsOf(track).join(QLatin1Char(' ')), QStringLiteral("5 6 7"));
    QVERIFY(take(windowFrom(5, true)));
    QCOMPARE(changed.count(), 1); // nothing new
    QVERIFY(take(windowFrom(6, true)));
    QCOMPARE(segmentsOf(track).join(QLatin1Char(' ')), QStringLiteral("5 6 7 8"));
    QVERIFY(!track.isEnded());
    // Two have come and gone since.
    QVERIFY(take(windowFrom(11, false)));
    QCOMPARE(segmentsOf(track).join(QLatin1Char(' ')), QStringLiteral("5 6 7 8   11 12 13"));
    QVERIFY(track.trackSegment(4).isHole && track.trackSegment(5).isHole);
    QVERIFY(track.isEnded());
}

void tst_DashManifest::followsTheClock()
{
    const DashManifest manifest = *parse(manifestOf(
        pictureOf("<SegmentTemplate media=\"$Number$\" duration=\"2\"/>"), "type=\"dynamic\""));
    DashSource track;
    const auto take = [&](qint64 fromS, qint64 untilS) {
        DashSource::Part part;
        part.period = &manifest.periods.constFirst();
        part.representation = &part.period->representations.constFirst();
        part.isFinal = false;
        part.fromUs = fromS * 1000000;
        part.untilUs = untilS * 1000000;
        const bool isWithin = track.extend(part);
        track.publish(false);
        return isWithin;
    };
    QVERIFY(take(100, 105)); // the one that is being made is not there yet
    QCOMPARE(segmentsOf(track).join(QLatin1Char(' ')), QStringLiteral("51 52"));
    QVERIFY(take(100, 105));
    QVERIFY(take(104, 109));
    QCOMPARE(segmentsOf(track).join(QLatin1Char(' ')), QStringLiteral("51 52 53 54"));
}

namespace {

QByteArray indexBox(const QByteArray &references, quint16 count)
{
    // version and flags, stream, timescale 1000, time 500, offset 7, reserved and count
    QByteArray content = QByteArray::fromHex("00000000000000010000"
                                             "03e8000001f4000000070000");
    content += char(count >> 8);
    content += char(count);
    content += references;
    const int size = content.size() + 8;
    QByteArray box(3, '\0');
    box += char(size);
    return box + "sidx" + content;
}

// 256 bytes, 2000 units, an access point at the beginning
const QByteArray reference = QByteArray::fromHex("00000100000007d090000000");

} // namespace

void tst_DashManifest::readsIndexes()
{
    const QByteArray box = indexBox(reference + reference, 2);
    const std::optional<SegmentIndex> index =
        SegmentIndex::parse(QByteArray::fromHex("00000008") + "free" + box);
    QVERIFY(index);
    QCOMPARE(index->timescale, 1000);
    QCOMPARE(index->firstTime, 500);
    QCOMPARE(index->firstByte, 8 + box.size() + 7);
    QCOMPARE(index->references.size(), 2);
    QCOMPARE(index->references.at(1).bytes, 256);
    QCOMPARE(index->references.at(1).duration, 2000);

    const std::optional<DashManifest> manifest = parse(
        manifestOf(pictureOf("<BaseURL>f.mp4</BaseURL><SegmentBase indexRange=\"1000-1099\"/>")));
    DashSource track;
    DashSource::Part part;
    part.period = &manifest->periods.constFirst();
    part.representation = &part.period->representations.constFirst();
    part.index = &*index;
    QVERIFY(track.extend(part));
    track.publish(true);
    const qint64 first = 1000 + index->firstByte;
    QCOMPARE(segmentsOf(track),
             QStringList({QStringLiteral("f.mp4@0+1000"), QStringLiteral("f.mp4@%1+256").arg(first),
                          QStringLiteral("f.mp4@%1+256").arg(first + 256)}));
    QCOMPARE(track.trackSegment(2).startUs, 2500000);
}

void tst_DashManifest::refusesIndexes()
{
    const QByteArray box = indexBox(reference, 1);
    for (int size = 0; size < box.size(); ++size)
        QVERIFY(!SegmentIndex::parse(box.left(size)));
    QVERIFY(!SegmentIndex::parse(indexBox(reference, 2)));
    QVERIFY(!SegmentIndex::parse(indexBox(reference, 0xFFFF)));
    QVERIFY(!SegmentIndex::parse(
        indexBox(QByteArray::fromHex("80000100000007d090000000"), 1))); // another index
    QVERIFY(!SegmentIndex::parse(indexBox(QByteArray(12, '\0'), 1))); // of no bytes
    QByteArray timeless = box;
    timeless.replace(16, 4, QByteArray(4, '\0'));
    QVERIFY(!SegmentIndex::parse(timeless));
}

CLIPWEIR_TEST_MAIN(tst_DashManifest)

#include "tst_dashmanifest.moc"
