#include "DashManifest.h"

#include "DashTemplate.h"
#include "DashTree.h"

#include <QRegularExpression>
#include <QSet>
#include <QStringList>

#include <algorithm>
#include <cmath>

namespace {

using Fault = DashManifest::Fault;
using Addressing = DashManifest::Addressing;

constexpr qint64 usPerSecond = 1000000;
constexpr qint64 mostUs = qint64(1) << 60; // some thirty thousand years
constexpr qint64 mostTime = DashManifest::maxTime;
constexpr qint64 mostDuration = qint64(1) << 48; // of a segment, in any unit
constexpr qint64 mostNumber = qint64(1) << 52; // of a segment
constexpr qint64 mostTimescale = 0xFFFFFFFFLL;
constexpr qint64 mostBandwidth = qint64(1) << 40;
constexpr int mostPixels = 1 << 20;
constexpr qint64 mostByte = qint64(1) << 50;

/// What a level of the manifest hands down to those below it.
struct Level
{
    QVector<QUrl> bases;
    Addressing addressing;
    QString kind; ///< as "contentType" has it
    QString mimeType;
    QString codecs;
    QString language;
    int width = 0;
    int height = 0;
    bool isDefault = false;
    bool isProtected = false;
    bool isForTricks = false;
};

/// The range that "first-last" names; none when it is no such thing.
std::optional<DashManifest::Range> rangeOf(const QString &text)
{
    const int dash = text.indexOf(QLatin1Char('-'));
    bool isFirst = false;
    bool isLast = false;
    const qint64 first = text.leftRef(dash).toLongLong(&isFirst);
    const qint64 last = text.midRef(dash + 1).toLongLong(&isLast);
    if (dash <= 0 || !isFirst || !isLast || first < 0 || last < first || last > mostByte)
        return std::nullopt;
    return DashManifest::Range{first, last - first + 1};
}

/// The bases that a level adds to those above it: alternatives of one another.
QVector<QUrl> basesBelow(const QVector<QUrl> &above, const DashTree &element)
{
    const std::vector<const DashTree *> own = element.all("BaseURL");
    if (own.empty())
        return above;
    QVector<QUrl> bases;
    const std::size_t looked = std::min<std::size_t>(own.size(), DashManifest::maxBases);
    for (std::size_t i = 0; i < looked; ++i) {
        for (const QUrl &base : above) {
            const QUrl url = base.resolved(QUrl(own[i]->text.trimmed()));
            if (bases.size() < DashManifest::maxBases && !bases.contains(url))
                bases += url;
        }
    }
    return bases;
}

/// The entries of a timeline. Returns false when they make no sense.
bool readTimeline(const DashTree &element, Addressing &addressing)
{
    addressing.timeline.clear();
    addressing.hasTimeline = true;
    qint64 next = 0;
    qint64 total = 0;
    for (int i = 0; i < element.steps.size(); ++i) {
        const DashTree::Step &step = element.steps.at(i);
        const qint64 duration = step.duration.value_or(0);
        const qint64 time = step.time.value_or(next);
        const qint64 repeats = step.repeats.value_or(0);
        if (duration <= 0 || duration > mostDuration || time < 0 || time > mostTime || repeats < -1
            || repeats >= DashManifest::maxSegments)
            return false;
        qint64 count = repeats + 1;
        if (repeats == -1) { // up to the next entry that says when it is, or to the end
            const bool isLast = i + 1 == element.steps.size();
            const std::optional<qint64> end = isLast ? std::nullopt : element.steps.at(i + 1).time;
            if (!isLast && !end)
                return false;
            count = isLast ? DashManifest::unknown
                           : std::max<qint64>(0, (*end - time + duration - 1) / duration);
        }
        if (count > DashManifest::maxSegments || count > (mostTime - time) / duration)
            return false;
        total += std::max<qint64>(0, count);
        if (total > DashManifest::maxSegments)
            return false;
        if (count != 0)
            addressing.timeline += {time, duration, count};
        next = time + duration * std::max<qint64>(0, count);
    }
    return true;
}

/// Reads an element that may stand alone or among the attributes of a template.
bool readInitialisation(const DashTree &element, Addressing &addressing)
{
    const DashTree *const own = element.child("Initialization");
    if (!own)
        return true;
    addressing.hasInitialisation = true;
    addressing.initialisation = own->value("sourceURL");
    addressing.initialisationRange = {};
    if (!own->has("range"))
        return true;
    const std::optional<DashManifest::Range> range = rangeOf(own->value("range"));
    addressing.initialisationRange = range.value_or(DashManifest::Range());
    return range.has_value();
}

/// What segments of all kinds have in common.
bool readCommon(const DashTree &element, Addressing &addressing)
{
    const auto read = [&element](const char *name, qint64 most, qint64 &number) {
        if (!element.has(name))
            return true;
        const std::optional<qint64> found = element.number(name, most);
        number = found.value_or(number);
        return found.has_value();
    };
    const bool isGood = read("timescale", mostTimescale, addressing.timescale)
        && read("presentationTimeOffset", mostTime, addressing.timeOffset)
        && read("duration", mostDuration, addressing.duration)
        && read("startNumber", mostNumber, addressing.startNumber)
        && read("endNumber", mostNumber, addressing.endNumber) && addressing.timescale > 0
        && readInitialisation(element, addressing);
    const DashTree *const timeline = element.child("SegmentTimeline");
    return isGood && (!timeline || readTimeline(*timeline, addressing));
}

bool readTemplate(const DashTree &element, Addressing &addressing)
{
    addressing.kind = Addressing::Kind::Template;
    if (element.has("media"))
        addressing.media = element.value("media");
    if (element.has("initialization")) {
        addressing.hasInitialisation = true;
        addressing.initialisation = element.value("initialization");
        addressing.initialisationRange = {};
    }
    return readCommon(element, addressing) && DashTemplate::isValid(addressing.media)
        && DashTemplate::isValid(addressing.initialisation);
}

bool readList(const DashTree &element, Addressing &addressing)
{
    addressing.kind = Addressing::Kind::List;
    if (!element.addresses.isEmpty())
        addressing.list.clear();
    for (const DashTree::Address &one : element.addresses) {
        const std::optional<DashManifest::Range> range =
            one.range.isEmpty() ? DashManifest::Range() : rangeOf(one.range);
        if (!range)
            return false;
        addressing.list += {one.media, *range};
    }
    return readCommon(element, addressing);
}

bool readBase(const DashTree &element, Addressing &addressing)
{
    if (element.has("indexRange")) {
        const std::optional<DashManifest::Range> index = rangeOf(element.value("indexRange"));
        if (!index)
            return false;
        addressing.kind = Addressing::Kind::Indexed;
        addressing.index = *index;
    }
    return readCommon(element, addressing);
}

/// What a level says of its segments, on top of what is said above it.
bool readAddressing(const DashTree &element, Addressing &addressing)
{
    if (const DashTree *const own = element.child("SegmentTemplate"))
        return readTemplate(*own, addressing);
    if (const DashTree *const own = element.child("SegmentList"))
        return readList(*own, addressing);
    if (const DashTree *const own = element.child("SegmentBase"))
        return readBase(*own, addressing);
    return true;
}

bool isForTricks(const DashTree &element)
{
    for (const char *const name : {"EssentialProperty", "SupplementalProperty"}) {
        for (const DashTree *const property : element.all(name)) {
            const QString scheme = property->value("schemeIdUri");
            if (scheme.endsWith(QLatin1String("/trickmode"))
                || scheme.endsWith(QLatin1String("/thumbnail_tile")))
                return true;
        }
    }
    return false;
}

/// Reads what adaptation sets and representations have in common.
bool readLevel(const DashTree &element, Level &level)
{
    level.bases = basesBelow(level.bases, element);
    const auto read = [&element](const char *name, QString &text) {
        if (element.has(name))
            text = element.value(name);
    };
    read("contentType", level.kind);
    read("mimeType", level.mimeType);
    read("codecs", level.codecs);
    read("lang", level.language);
    level.width = static_cast<int>(element.number("width", mostPixels).value_or(level.width));
    level.height = static_cast<int>(element.number("height", mostPixels).value_or(level.height));
    level.isProtected = level.isProtected || element.child("ContentProtection");
    level.isForTricks = level.isForTricks || isForTricks(element);
    for (const DashTree *const role : element.all("Role"))
        level.isDefault = level.isDefault || role->value("value") == QLatin1String("main");
    return readAddressing(element, level.addressing);
}

Rendition::Kind kindOf(const Level &level)
{
    const auto is = [&level](const char *kind) {
        return level.kind == QLatin1String(kind)
            || level.mimeType.startsWith(QLatin1String(kind) + QLatin1Char('/'));
    };
    static const QRegularExpression textCodecs(QStringLiteral("^(stpp|wvtt|tx3g)"));
    if (is("text") || is("image") || level.mimeType.contains(QLatin1String("ttml"))
        || textCodecs.match(level.codecs).hasMatch())
        return Rendition::Kind::Text;
    if (is("video"))
        return Rendition::Kind::Picture;
    return is("audio") ? Rendition::Kind::Sound : Rendition::Kind::Picture;
}

DashManifest::Representation representationOf(const DashTree &element, const Level &level)
{
    DashManifest::Representation made;
    Rendition &rendition = made.rendition;
    rendition.kind = kindOf(level);
    rendition.id = element.value("id");
    rendition.codecs = level.codecs;
    rendition.language = level.language == QLatin1String("und") ? QString() : level.language;
    rendition.isDefault = level.isDefault;
    rendition.width = level.width;
    rendition.height = level.height;
    rendition.bandwidth = element.number("bandwidth", mostBandwidth).value_or(0);
    made.mimeType = level.mimeType;
    made.bases = level.bases;
    made.addressing = level.addressing;
    made.isProtected = level.isProtected;
    made.isForTricks = level.isForTricks;
    return made;
}

/// Reads a period's representations. Returns false, and says why, when they cannot be used.
bool readPeriod(const DashTree &element, const QVector<QUrl> &bases, int &representations,
                DashManifest::Period &period, Fault &fault)
{
    Level ofPeriod;
    ofPeriod.bases = basesBelow(bases, element);
    ofPeriod.isProtected = element.child("ContentProtection");
    bool isGood = readAddressing(element, ofPeriod.addressing);
    for (const DashTree *const set : element.all("AdaptationSet")) {
        Level ofSet = ofPeriod;
        isGood = isGood && readLevel(*set, ofSet);
        for (const DashTree *const one : set->all("Representation")) {
            Level own = ofSet;
            isGood = isGood && readLevel(*one, own);
            if (!isGood)
                break;
            if (++representations > DashManifest::maxRepresentations) {
                fault = {false, QStringLiteral("it has too many representations")};
                return false;
            }
            period.representations += representationOf(*one, own);
        }
    }
    if (!isGood)
        fault = {false, QStringLiteral("a period tells of its segments what makes no sense")};
    return isGood;
}

/// When the periods are, as far as they say so themselves or their neighbours do.
void layPeriods(const std::vector<const DashTree *> &elements, DashManifest &manifest)
{
    qint64 next = 0;
    for (int i = 0; i < manifest.periods.size(); ++i) {
        DashManifest::Period &period = manifest.periods[i];
        const DashTree &element = *elements.at(static_cast<std::size_t>(i));
        const qint64 start = DashManifest::durationOf(element.value("start"));
        period.startUs = start >= 0 ? start : next;
        period.durationUs = DashManifest::durationOf(element.value("duration"));
        next = std::min(mostUs, period.startUs + std::max<qint64>(0, period.durationUs));
    }
    for (int i = 0; i < manifest.periods.size(); ++i) {
        DashManifest::Period &period = manifest.periods[i];
        const bool isLast = i + 1 == manifest.periods.size();
        const qint64 end = isLast ? manifest.durationUs : manifest.periods.at(i + 1).startUs;
        if (period.durationUs < 0 && end > period.startUs)
            period.durationUs = end - period.startUs;
    }
    if (manifest.durationUs < 0 && !manifest.isDynamic && !manifest.periods.isEmpty()
        && manifest.periods.constLast().durationUs >= 0)
        manifest.durationUs =
            manifest.periods.constLast().startUs + manifest.periods.constLast().durationUs;
    for (DashManifest::Period &period : manifest.periods) {
        for (DashManifest::Representation &one : period.representations)
            one.rendition.durationUs = std::max<qint64>(0, manifest.durationUs);
    }
}

QDateTime dateOf(const QString &text)
{
    QDateTime date = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (date.isValid() && date.timeSpec() == Qt::LocalTime)
        date.setTimeSpec(Qt::UTC); // without a zone
    return date;
}

void readHead(const DashTree &root, const QUrl &address, DashManifest &manifest)
{
    manifest.isDynamic = root.value("type") == QLatin1String("dynamic");
    manifest.availabilityStart = dateOf(root.value("availabilityStartTime"));
    manifest.durationUs = DashManifest::durationOf(root.value("mediaPresentationDuration"));
    manifest.updatePeriodUs = DashManifest::durationOf(root.value("minimumUpdatePeriod"));
    manifest.windowUs = DashManifest::durationOf(root.value("timeShiftBufferDepth"));
    for (const DashTree *const timing : root.all("UTCTiming")) {
        if (timing->value("schemeIdUri").startsWith(QLatin1String("urn:mpeg:dash:utc:direct:")))
            manifest.serverTime = dateOf(timing->value("value"));
    }
    if (const DashTree *const location = root.child("Location"))
        manifest.location = address.resolved(QUrl(location->text.trimmed()));
}

} // namespace

std::optional<DashManifest> DashManifest::parse(const QByteArray &document, const QUrl &address,
                                                Fault &fault)
{
    bool hasLinks = false;
    const std::unique_ptr<DashTree> root =
        document.size() <= maxBytes ? DashTree::read(document, hasLinks) : nullptr;
    if (!root || root->name != QLatin1String("MPD")) {
        fault = {false, QStringLiteral("it is no manifest, or none within the limits")};
        return std::nullopt;
    }
    if (hasLinks) {
        fault = {true, QStringLiteral("parts of it are to be fetched from elsewhere (xlink)")};
        return std::nullopt;
    }
    DashManifest manifest;
    readHead(*root, address, manifest);
    const QVector<QUrl> bases = basesBelow({address}, *root);
    const std::vector<const DashTree *> periods = root->all("Period");
    if (periods.empty() || periods.size() > maxPeriods) {
        fault = {false, QStringLiteral("it has no periods, or too many")};
        return std::nullopt;
    }
    int representations = 0;
    QSet<QString> ids;
    for (const DashTree *const element : periods) {
        Period period;
        period.id = element->value("id");
        if (ids.contains(period.id))
            period.id.clear();
        ids.insert(period.id);
        if (!readPeriod(*element, bases, representations, period, fault))
            return std::nullopt;
        manifest.periods += period;
    }
    layPeriods(periods, manifest);
    return manifest;
}

qint64 DashManifest::toUs(qint64 time, qint64 timescale)
{
    const qint64 unit = std::max<qint64>(1, std::min(timescale, mostTimescale));
    const qint64 whole = time / unit;
    if (whole > mostUs / usPerSecond)
        return mostUs;
    return whole * usPerSecond + (time % unit) * usPerSecond / unit;
}

qint64 DashManifest::durationOf(const QString &text)
{
    static const QRegularExpression format(QStringLiteral(
        "^P(?:(\\d{1,9})Y)?(?:(\\d{1,9})M)?(?:(\\d{1,9})D)?"
        "(?:T(?:(\\d{1,9})H)?(?:(\\d{1,12})M)?(?:(\\d{1,15}(?:\\.\\d{0,30})?)S)?)?$"));
    const QRegularExpressionMatch match = format.match(text.trimmed());
    if (!match.hasMatch())
        return unknown;
    constexpr double units[] = {365.0 * 86400, 30.0 * 86400, 86400, 3600, 60, 1}; // seconds
    double seconds = 0;
    for (int i = 0; i < 6; ++i)
        seconds += match.captured(i + 1).toDouble() * units[i];
    const double us = std::round(seconds * usPerSecond);
    return us < static_cast<double>(mostUs) ? static_cast<qint64>(us) : mostUs;
}
