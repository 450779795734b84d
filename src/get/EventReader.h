#ifndef EVENTREADER_H
#define EVENTREADER_H

#include <QByteArray>
#include <QJsonObject>

#include <functional>

/// Takes the events of a run from its standard output, piece by piece as they come. A line that is
/// no event, or longer than any, is passed over: what a page says must not stop the command.
class EventReader final
{
public:
    /// Gets each event, and the line that it was, without its end.
    using Receiver = std::function<void(const QJsonObject &event, const QByteArray &line)>;

    explicit EventReader(Receiver receiver);

    void take(const QByteArray &bytes);

private:
    void takeLine(const QByteArray &line) const;

    const Receiver m_receiver;
    QByteArray m_rest;
    int m_searched = 0; ///< bytes of the rest that hold no line end
    bool m_isSkipping = false; ///< the rest of a line that is too long
};

#endif
