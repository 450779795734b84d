#include "DevTools.h"

#include <QJsonDocument>
#include <QPointer>

#include <optional>
#include <utility>

DevTools::DevTools(std::unique_ptr<EngineKeeper> keeper, QObject *parent)
    : QObject(parent)
    , m_process(std::move(keeper))
{
    connect(&m_process, &EngineProcess::received, this, &DevTools::take);
    connect(&m_process, &EngineProcess::ended, this, &DevTools::onEnd);
}

void DevTools::call(const QString &method, const QJsonObject &parameters, const QString &session,
                    const Answer &answer)
{
    QJsonObject message{{QStringLiteral("id"), ++m_lastCall}, {QStringLiteral("method"), method}};
    if (!parameters.isEmpty())
        message.insert(QStringLiteral("params"), parameters);
    if (!session.isEmpty())
        message.insert(QStringLiteral("sessionId"), session);
    if (answer)
        m_answers.insert(m_lastCall, answer);
    m_process.send(QJsonDocument(message).toJson(QJsonDocument::Compact));
}

QJsonObject DevTools::callAndWait(const QString &method, std::chrono::milliseconds limit)
{
    const auto answer = std::make_shared<std::optional<QJsonObject>>();
    call(method, {}, {}, [answer](const QJsonObject &result) { *answer = result; });
    m_process.waitFor(limit, [&answer] { return answer->has_value(); });
    return answer->value_or(QJsonObject());
}

void DevTools::end()
{
    m_process.end();
    m_answers.clear();
}

void DevTools::onEnd(const QString &reason)
{
    const QPointer<DevTools> self(this);
    emit ended(reason);
    if (!self)
        return; // so are those who wait
    const QHash<int, Answer> answers = std::exchange(m_answers, {});
    for (const Answer &answer : answers)
        answer({});
}

void DevTools::take(const QByteArray &message)
{
    const QJsonObject object = QJsonDocument::fromJson(message).object();
    const QJsonValue number = object.value(QLatin1String("id"));
    if (number.isUndefined()) {
        emit happened(object.value(QLatin1String("method")).toString(),
                      object.value(QLatin1String("params")).toObject(),
                      object.value(QLatin1String("sessionId")).toString());
        return;
    }
    if (const Answer answer = m_answers.take(number.toInt()))
        answer(object.value(QLatin1String("result")).toObject());
}
