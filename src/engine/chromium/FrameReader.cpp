#include "FrameReader.h"

#include "PageScript.h"

#include <QJsonArray>

namespace {

constexpr int patienceMs = 300;
constexpr int limitMs = 1500;
constexpr int maxFrames = 64;
constexpr int maxSourceChars = 32 << 20; // of all frames

QJsonObject object(const QJsonObject &parent, const char *key)
{
    return parent.value(QLatin1String(key)).toObject();
}

/// The identifiers of a frame tree, depth first.
void addFrames(const QJsonObject &tree, QStringList &frames)
{
    if (frames.size() >= maxFrames)
        return;
    frames += object(tree, "frame").value(QLatin1String("id")).toString();
    const QJsonArray children = tree.value(QLatin1String("childFrames")).toArray();
    for (const QJsonValue &child : children)
        addFrames(child.toObject(), frames);
}

PageSnapshot::Attributes attributesOf(const QJsonArray &list)
{
    PageSnapshot::Attributes attributes;
    for (const QJsonValue &value : list) {
        const QJsonArray pair = value.toArray();
        attributes += qMakePair(pair.at(0).toString(), pair.at(1).toString());
    }
    return attributes;
}

void append(PageSnapshot &snapshot, const QJsonObject &part)
{
    const QString source = part.value(QLatin1String("source")).toString();
    if (snapshot.source.size() + source.size() <= maxSourceChars)
        snapshot.source += snapshot.source.isEmpty() ? source : QLatin1Char('\n') + source;
    const QJsonArray params = part.value(QLatin1String("params")).toArray();
    for (const QJsonValue &param : params)
        snapshot.params += attributesOf(param.toArray());
    const QJsonArray media = part.value(QLatin1String("media")).toArray();
    for (const QJsonValue &address : media)
        snapshot.media += address.toString();
}

} // namespace

FrameReader::FrameReader(DevTools &tools, QObject *parent)
    : QObject(parent)
    , m_tools(tools)
    , m_script(PageScript::text("reader.js"))
{
    m_patience.setSingleShot(true);
    m_limit.setSingleShot(true);
    connect(&m_patience, &QTimer::timeout, this, [this] {
        m_tools.call(QStringLiteral("Runtime.terminateExecution"), {}, m_session);
        for (const QString &session : qAsConst(m_sites))
            m_tools.call(QStringLiteral("Runtime.terminateExecution"), {}, session);
    });
    connect(&m_limit, &QTimer::timeout, this, &FrameReader::tell);
}

void FrameReader::addSite(const QString &session)
{
    if (m_sites.size() < maxFrames)
        m_sites += session;
}

void FrameReader::removeSite(const QString &session)
{
    m_sites.removeOne(session);
}

void FrameReader::read()
{
    if (m_isReading)
        return;
    m_isReading = true;
    ++m_round;
    m_pending = 0;
    m_parts.clear();
    m_patience.start(patienceMs);
    m_limit.start(limitMs);
    begin();
    readSession(m_session);
    for (const QString &site : qAsConst(m_sites))
        readSession(site);
    end();
}

void FrameReader::stop()
{
    m_isReading = false;
    ++m_round;
    m_patience.stop();
    m_limit.stop();
}

void FrameReader::readSession(const QString &session)
{
    begin();
    m_tools.call(QStringLiteral("Page.getFrameTree"), {}, session,
                 [this, session, round = m_round](const QJsonObject &result) {
                     if (round != m_round)
                         return;
                     QStringList frames;
                     addFrames(object(result, "frameTree"), frames);
                     for (const QString &frame : qAsConst(frames)) {
                         if (m_parts.size() < maxFrames && !frame.isEmpty()) {
                             m_parts += QJsonObject();
                             readFrame(session, frame, m_parts.size() - 1);
                         }
                     }
                     end();
                 });
}

void FrameReader::readFrame(const QString &session, const QString &frame, int place)
{
    begin();
    evaluateIn(session, frame, m_script, [this, place, round = m_round](const QJsonValue &part) {
        if (round != m_round)
            return;
        m_parts[place] = part.toObject();
        end();
    });
}

void FrameReader::evaluate(const QString &script, const Take &take)
{
    m_tools.call(QStringLiteral("Page.getFrameTree"), {}, m_session,
                 [this, script, take](const QJsonObject &result) {
                     const QJsonObject frame = object(object(result, "frameTree"), "frame");
                     evaluateIn(m_session, frame.value(QLatin1String("id")).toString(), script,
                                take);
                 });
}

void FrameReader::evaluateIn(const QString &session, const QString &frame, const QString &script,
                             const Take &take)
{
    const auto inWorld = [this, session, script, take](const QJsonObject &world) {
        m_tools.call(
            QStringLiteral("Runtime.evaluate"),
            {{QStringLiteral("expression"), script},
             {QStringLiteral("contextId"), world.value(QLatin1String("executionContextId"))},
             {QStringLiteral("awaitPromise"), true},
             {QStringLiteral("userGesture"), true},
             {QStringLiteral("returnByValue"), true}},
            session, [take](const QJsonObject &result) {
                take(object(result, "result").value(QLatin1String("value")));
            });
    };
    m_tools.call(QStringLiteral("Page.createIsolatedWorld"),
                 {{QStringLiteral("frameId"), frame},
                  {QStringLiteral("worldName"), QStringLiteral("reader")}},
                 session, inWorld);
}

void FrameReader::end()
{
    if (--m_pending == 0)
        tell();
}

void FrameReader::tell()
{
    stop();
    PageSnapshot snapshot;
    for (const QJsonObject &part : qAsConst(m_parts))
        append(snapshot, part);
    snapshot.hasRootAttributes = !snapshot.params.isEmpty();
    m_parts.clear();
    emit ready(snapshot);
}
