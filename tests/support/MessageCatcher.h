#ifndef MESSAGECATCHER_H
#define MESSAGECATCHER_H

#include <QStringList>

/// While it lives, collects the texts of debug messages from all threads; other kinds of message
/// go on to the handler that was installed before. One at a time.
class MessageCatcher final
{
public:
    MessageCatcher();
    ~MessageCatcher();
    Q_DISABLE_COPY(MessageCatcher)

    [[nodiscard]] QStringList lines() const;

    /// The collected texts that contain the given one.
    [[nodiscard]] QStringList linesWith(const QString &text) const;

    void clear();
};

#endif
