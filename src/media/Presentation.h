#ifndef PRESENTATION_H
#define PRESENTATION_H

#include "Rendition.h"
#include "TrackSink.h"

#include <QObject>
#include <QString>
#include <QUrl>
#include <QVector>

#include <memory>

class MergedSource;
class TrackSource;

/// What a manifest or a playlist presents: renditions, of which some are chosen to be fetched.
///
/// It lives on the main thread, fetches its documents by itself and waits for nothing: everything
/// that it finds out comes by signals from the event loop. It may be destroyed at any time but from
/// a slot of its own signals; the track sources are its children and go with it.
class Presentation : public QObject
{
    Q_OBJECT

public:
    /// What is wanted of it.
    struct Wish
    {
        QUrl address; ///< of the manifest
        int height = 0; ///< pixels; 0 for no wish
        QString language; ///< of the sound; empty for no wish
    };

    /// Why it cannot be had.
    enum class Failure {
        Unreachable, ///< no answer, or none of use
        Malformed, ///< what came is no such document, or none within the limits
        Protected, ///< encrypted with a key that only a licence gives
        Unsupported ///< in order, but of a kind that is not fetched; or there is nothing in it
    };
    Q_ENUM(Failure)

    using QObject::QObject;

    /// Begins, once. ready() or failed() follows, never from inside this call.
    virtual void open() = 0;

    /// Has it look for nothing more: before ready() neither signal follows any more; later its
    /// tracks end with the segments that they know, which they tell by changed(). Legal at any
    /// time.
    virtual void finish() = 0;

    // Once it is ready.

    /// All that is offered, in the order of the manifest.
    [[nodiscard]] virtual QVector<Rendition> renditions() const = 0;

    /// Those that are fetched, in the order of tracks(). At least one.
    [[nodiscard]] virtual QVector<Rendition> chosen() const = 0;

    /// The segments of those. They stay the presentation's.
    [[nodiscard]] virtual QVector<TrackSource *> tracks() const = 0;

    /// Whether segments may follow those that are known, so that nobody knows how many.
    [[nodiscard]] virtual bool isLive() const = 0;

    /// The file that the tracks become: one that takes all kinds of them, unless all that is
    /// presented this way is of another one. None where what that takes is not installed.
    /// @param source the segments of tracks(); outlives the sink
    [[nodiscard]] virtual std::unique_ptr<TrackSink>
    makeSink(const MergedSource &source, const TrackSink::Target &target) const;

signals:
    void ready();

    /// The end, before it was ready; sent once. Which rule made it so is in the reason, for a log.
    void failed(Presentation::Failure failure, const QString &reason);
};

#endif
