#ifndef EVENTCHECK_H
#define EVENTCHECK_H

#include <QByteArray>
#include <QJsonObject>
#include <QList>

/// Judges events as a host reads them, by the schema of the papers.
namespace EventCheck {

/// Whether every line is an event that fits the schema, and nothing follows a result. What is wrong
/// goes to the log.
[[nodiscard]] bool isValid(const QByteArray &lines);

/// The objects of the lines; an empty one for a line that is none.
[[nodiscard]] QList<QJsonObject> eventsOf(const QByteArray &lines);

} // namespace EventCheck

#endif
