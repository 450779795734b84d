#ifndef PIECEFETCHER_H
#define PIECEFETCHER_H

#include "PieceLane.h"
#include "PieceMap.h"

#include <QTimer>

#include <memory>
#include <vector>

/// Brings what is missing of a part over several connections. Each gets one piece after the other,
/// in the order of the file, so that its front follows; pieces are as large as a connection brings
/// in a few seconds, and smaller towards the end. A free connection for which nothing is left takes
/// over from the slowest one what that would need longest for.
///
/// A connection that the server does not want, or that breaks off too often, is given up, and the
/// others bring its piece. When the server has something else by now all of them are.
class PieceFetcher final : public QObject
{
    Q_OBJECT

public:
    struct Wish
    {
        QString url;
        int connections = 1; ///< in all
        int retries = 0; ///< further attempts at a piece
        NetSettings net{};
    };

    /// @param part with an origin that is provable; outlives this
    /// @param cookies outlives this
    /// @param from what is before this byte is somebody else's business, and leadBytes at least
    PieceFetcher(const Wish &wish, PartFile &part, QNetworkCookieJar &cookies, qint64 from);
    ~PieceFetcher() override;

    /// How many connections are of use for a file of which so many bytes are missing.
    [[nodiscard]] static int placesFor(qint64 bytes);

    /// Begins to fetch, over one connection less than there are: somebody has one already, and
    /// does not end before takeOver().
    void start();

    /// Takes over the last connection, and what is missing of what came over it. Does nothing once
    /// it has ended, as it may before for something that all connections have in common.
    void takeOver(const PieceMap::Piece &missing);

    /// Stops without a word. What has come stays.
    void stop();

    /// Whether anything is under way.
    [[nodiscard]] bool isRunning() const { return !m_isOver; }

    [[nodiscard]] bool hasWriteFailed() const { return m_hasWriteFailed; }

signals:
    /// Some bytes have been written.
    void arrived();

    /// Nothing is under way any more: all is there, or cannot be had in this way.
    void ended();

private:
    struct Place
    {
        std::unique_ptr<PieceLane> lane;
        std::unique_ptr<QTimer> pause; ///< runs between two attempts
        int attempts = 0; ///< that have failed since something came whole
        bool isGivenUp = false;

        [[nodiscard]] bool isBusy() const { return lane->isBusy() || pause->isActive(); }
    };

    void addPlace();
    void assignAll();
    [[nodiscard]] bool assign(Place &place);
    [[nodiscard]] bool relieve(PieceLane &thief);
    [[nodiscard]] qint64 pieceBytes(const PieceLane &lane) const;
    void onEnded(Place *place, PieceLane::End end);
    void retry(Place &place);
    void endIfIdle();

    const Wish m_wish;
    PartFile &m_part;
    QNetworkCookieJar &m_cookies;
    PieceMap m_map;
    std::vector<std::unique_ptr<Place>> m_places;
    QTimer m_look; ///< whether somebody is slow
    bool m_awaitsTakeOver = false;
    bool m_isOver = false;
    bool m_hasWriteFailed = false;
};

#endif
