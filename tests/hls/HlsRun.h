#ifndef HLSRUN_H
#define HLSRUN_H

#include "HlsPresentation.h"
#include "MediaRequest.h"
#include "Opening.h"
#include "ScriptedServer.h"
#include "SegmentFetcher.h"
#include "SegmentSink.h"
#include "SegmentWorker.h"
#include "TrackSource.h"

#include <QMap>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

/// Keeps what comes of each segment, and writes them one after the other.
class PartsSink final : public SegmentSink
{
public:
    explicit PartsSink(const QString &path)
        : m_path(path)
    {
    }
    ~PartsSink() override { end(); }

    QString path() const override { return m_path; }

    QMap<qint64, QByteArray> parts;

private:
    bool writeSegment(qint64 number, QByteArray &content) override
    {
        parts[number] = content;
        return writeBytes(content);
    }

    const QString m_path;
};

/// What becomes of a track when it is fetched to its end, by number; empty parts were not to be
/// had.
inline QMap<qint64, QByteArray> fetchAll(TrackSource &track, const MediaServers &servers)
{
    QTemporaryDir folder;
    PartsSink sink(folder.filePath(QStringLiteral("parts")));
    SegmentFetcher fetcher(track, sink, [servers](QObject *parent) {
        const auto ask = [servers](const Segment &segment, QByteArray buffer,
                                   const StopFlag &stop) {
            MediaRequest request(servers, stop);
            const bool hasCome = request.run({QUrl(segment.address), segment.firstByte,
                                              segment.byteCount, SegmentWorker::maxBytes},
                                             std::move(buffer));
            const bool isLengthKnown = request.isLengthKnown();
            return SegmentWorker::Answer{request.takeBody(), hasCome, isLengthKnown};
        };
        return new SegmentWorker(ask, parent);
    });
    bool isOver = false;
    QObject::connect(&fetcher, &SegmentFetcher::ended, &fetcher, [&isOver] { isOver = true; });
    const bool isDone = fetcher.start() && QTest::qWaitFor([&isOver] { return isOver; }, 60 * 1000);
    return isDone ? sink.parts : QMap<qint64, QByteArray>();
}

#endif
