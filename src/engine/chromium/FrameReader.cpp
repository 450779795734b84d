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
        for (const QString &session : qAsConst(m_siteSessions))
            m_tools.call(QStringLiteral("Runtime.terminateExecution"), {}, session);
    });
    connect(&m_limit, &QTimer::timeout, this, &FrameReader::tell);
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
    readOtherSites();
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

/// Their documents live in processes of their own.
void FrameReader::readOtherSites()
{
    begin();
    m_tools.call(
        QStringLiteral("Target.getTargets"), {}, {},
        [this, round = m_round](const QJsonObject &result) {
            if (round != m_round)
                return;
            const QJsonArray targets = result.value(QLatin1String("targetInfos")).toArray();
            for (const QJsonValue &value : targets) {
                const QJsonObject target = value.toObject();
                const QString id = target.value(QLatin1String("targetId")).toString();
                if (target.value(QLatin1String("type")).toString() != QLatin1String("iframe"))
                    continue;
                if (m_siteSessions.contains(id)) {
                    readSession(m_siteSessions.value(id));
                    continue;
                }
                begin();
                m_tools.call(QStringLiteral("Target.attachToTarget"),
                             {{QStringLiteral("targetId"), id}, {QStringLiteral("flatten"), true}},
                             {}, [this, id, round](const QJsonObject &attached) {
                                 const QString session =
                                     attached.value(QLatin1String("sessionId")).toString();
                                 if (!session.isEmpty())
                                     m_siteSessions.insert(id, session);
                                 if (round != m_round)
                                     return;
                                 if (!session.isEmpty())
                                     readSession(session);
                                 end();
                             });
            }
            end();
        });
}

void FrameReader::readFrame(const QString &session, const QString &frame, int place)
{
    begin();
    m_tools.call(QStringLiteral("Page.createIsolatedWorld"),
                 {{QStringLiteral("frameId"), frame},
                  {QStringLiteral("worldName"), QStringLiteral("reader")}},
                 session, [this, session, place, round = m_round](const QJsonObject &world) {
                     if (round != m_round)
                         return;
                     m_tools.call(QStringLiteral("Runtime.evaluate"),
                                  {{QStringLiteral("expression"), m_script},
                                   {QStringLiteral("contextId"),
                                    world.value(QLatin1String("executionContextId"))},
                                   {QStringLiteral("returnByValue"), true}},
                                  session, [this, place, round](const QJsonObject &result) {
                                      if (round != m_round)
                                          return;
                                      m_parts[place] = object(object(result, "result"), "value");
                                      end();
                                  });
                 });
}

void FrameReader::evaluate(const QString &script,
                           const std::function<void(const QJsonValue &)> &answer)
{
    const auto inWorld = [this, script, answer](const QJsonObject &world) {
        m_tools.call(
            QStringLiteral("Runtime.evaluate"),
            {{QStringLiteral("expression"), script},
             {QStringLiteral("contextId"), world.value(QLatin1String("executionContextId"))},
             {QStringLiteral("awaitPromise"), true},
             {QStringLiteral("userGesture"), true},
             {QStringLiteral("returnByValue"), true}},
            m_session, [answer](const QJsonObject &result) {
                answer(object(result, "result").value(QLatin1String("value")));
            });
    };
    m_tools.call(QStringLiteral("Page.getFrameTree"), {}, m_session,
                 [this, inWorld](const QJsonObject &result) {
                     m_tools.call(
                         QStringLiteral("Page.createIsolatedWorld"),
                         {{QStringLiteral("frameId"),
                           object(object(result, "frameTree"), "frame").value(QLatin1String("id"))},
                          {QStringLiteral("worldName"), QStringLiteral("reader")}},
                         m_session, inWorld);
                 });
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
