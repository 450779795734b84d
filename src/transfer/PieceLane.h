#ifndef PIECELANE_H
#define PIECELANE_H

#include "HttpClient.h"

#include <QElapsedTimer>

class PartFile;
class QNetworkCookieJar;

/// One of the connections that bring a file side by side: it asks for one piece after the other and
/// writes what comes to its place in the part. What the server answers has to prove that it is of
/// the content that the part has (RFC 9110, 13.1.5 and 14.4), and so have its first bytes, which
/// repeat what is before the piece.
class PieceLane final : public QObject
{
    Q_OBJECT

public:
    /// How a piece ends.
    enum class End {
        Whole, ///< all that was asked for is there
        Other, ///< the server has something else by now, or does not give such ranges
        Crowded, ///< the server does not want to be asked over one more connection
        Broken, ///< broken off, fallen silent or refused for now; another attempt may do
        Unwritten ///< the disk does not take it
    };

    /// @param part what is written, open and with an origin; outlives this
    /// @param cookies outlives this
    PieceLane(const QString &url, PartFile &part, const NetSettings &settings,
              QNetworkCookieJar &cookies, QObject *parent = nullptr);

    /// Asks for a piece: some bytes, which begin behind the first PartFile::leadBytes of the file.
    void fetch(qint64 first, qint64 end);

    /// Leaves what comes from there on to somebody else.
    void shorten(qint64 end);

    /// Stops without a word. What has come stays.
    void drop();

    [[nodiscard]] bool isBusy() const { return m_isBusy; }
    [[nodiscard]] qint64 position() const { return m_position; } ///< where the next byte goes
    [[nodiscard]] qint64 end() const { return m_end; } ///< one past the last byte

    /// Bytes a second of the running piece, or of the last one; negative when that cannot be told.
    [[nodiscard]] double rate() const;

    /// What the server asks its clients to wait; empty for nothing.
    [[nodiscard]] QByteArray retryAfter() const { return m_client.header("Retry-After"); }

signals:
    /// Some bytes have been written.
    void arrived();

    /// The piece is over; from the event loop, and never after drop().
    void ended(PieceLane::End end);

private:
    void judgeAnswer();
    [[nodiscard]] End judged() const;
    void readBody();
    [[nodiscard]] bool take(const char *data, qint64 bytes);
    [[nodiscard]] bool takeLead(const char *&data, qint64 &bytes);
    void onEnded();
    void finish(End end);

    const QString m_url;
    PartFile &m_part;
    QNetworkCookieJar &m_cookies;
    HttpClient m_client;
    QElapsedTimer m_sinceAsked;
    double m_lastRate = -1;
    qint64 m_first = 0;
    qint64 m_position = 0;
    qint64 m_end = 0;
    qint64 m_askedEnd = 0;
    QByteArray m_lead; ///< as far as it has come
    bool m_hasBegun = false; ///< bytes of the piece itself are taken
    bool m_isBusy = false; ///< until its end is told
    bool m_isOver = false; ///< which is yet to be told
    bool m_isTaken = false; ///< the answer proves to be what was asked for
    quint64 m_pieceNo = 0; ///< of a late end of an earlier piece nothing is told
    End m_verdict = End::Broken; ///< of an answer that is not taken
};

#endif
