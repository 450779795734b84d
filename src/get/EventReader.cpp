#include "EventReader.h"

#include <QJsonDocument>

namespace {

/// A record may name many addresses.
constexpr int mostLineBytes = 8 * 1024 * 1024;

} // namespace

EventReader::EventReader(Receiver receiver)
    : m_receiver(std::move(receiver))
{
}

void EventReader::take(const QByteArray &bytes)
{
    m_rest += bytes;
    int start = 0;
    for (int end = m_rest.indexOf('\n', m_searched); end >= 0; end = m_rest.indexOf('\n', start)) {
        if (!m_isSkipping && end - start <= mostLineBytes)
            takeLine(m_rest.mid(start, end - start));
        m_isSkipping = false;
        start = end + 1;
    }
    m_rest.remove(0, start);
    if (m_rest.size() > mostLineBytes) {
        m_isSkipping = true;
        m_rest.clear();
    }
    m_searched = m_rest.size();
}

void EventReader::takeLine(const QByteArray &line) const
{
    const QJsonObject event = QJsonDocument::fromJson(line).object();
    if (event.value(QLatin1String("version")).toInt() == 1
        && event.value(QLatin1String("event")).isString())
        m_receiver(event, line);
}
