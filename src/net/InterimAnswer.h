#ifndef INTERIMANSWER_H
#define INTERIMANSWER_H

#include <QString>

class QNetworkReply;

/// Answers that only announce another one (103 Early Hints, for instance). The toolkit reads past
/// 100 by itself, but ends a reply with any other of them, and the answer itself is lost: such a
/// reply has no content, no length and no success.
class InterimAnswer final
{
public:
    InterimAnswer() = delete;

    /// Whether that is all that a reply, whose header has come, has got.
    [[nodiscard]] static bool isIn(const QNetworkReply &reply);

    /// What an error that comes of it says.
    [[nodiscard]] static QString errorText();

    /// Writes a warning if that is how a reply has ended.
    static void report(const QNetworkReply &reply);
};

#endif
