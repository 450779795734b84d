#ifndef HDSFIXTURES_H
#define HDSFIXTURES_H

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVector>

/// Builders of HTTP Dynamic Streaming input, and a reader of FLV output that shares no code with
/// the program. All fields are big-endian.
namespace hds {

QByteArray int16(quint32 value);
QByteArray int24(quint32 value);
QByteArray int32(quint32 value);
QByteArray int64(quint64 value);

/// A box: 32-bit size of the whole, 4-letter type, payload.
QByteArray box(const QByteArray &type, const QByteArray &payload);

/// A box with the 64-bit size form: a size of 1, the type, the size of the whole, the payload.
QByteArray largeBox(const QByteArray &type, const QByteArray &payload);

/// An FLV tag with its back-pointer.
QByteArray tag(int type, quint32 timestampMs, const QByteArray &data);

QByteArray audioTag(quint32 timestampMs, const QByteArray &content); ///< AAC samples
QByteArray videoTag(quint32 timestampMs, const QByteArray &content); ///< an AVC picture
QByteArray audioHeader(quint32 timestampMs, const QByteArray &content); ///< AAC sequence header
QByteArray videoHeader(quint32 timestampMs, const QByteArray &content); ///< AVC sequence header

/// A fragment as servers send it: afra, abst and moof boxes that mean nothing here, then mdat.
QByteArray fragment(const QByteArray &tags);

/// A fragment of a sound and a picture tag that name its number; begins at (number - 1) * 100 ms.
QByteArray numberedFragment(int number, int paddingBytes = 0);

struct SegmentRun
{
    quint32 firstSegment;
    quint32 fragmentsPerSegment;
};

struct FragmentRun
{
    quint32 firstFragment;
    quint64 timestamp;
    quint32 duration;
    int discontinuity = -1; ///< written when 0 or more, as a table does for a duration of 0
};

/// A bootstrap box and its parts.
struct Bootstrap
{
    bool isLive = false;
    bool isUpdate = false;
    quint64 mediaTime = 0;
    QByteArray drmData;
    QList<QByteArray> servers;
    QList<QByteArray> qualities;
    QVector<SegmentRun> segments;
    QVector<FragmentRun> fragments;

    [[nodiscard]] QByteArray asrt() const;
    [[nodiscard]] QByteArray afrt() const;
    [[nodiscard]] QByteArray abst() const;
};

/// The bootstrap of a stream of so many fragments, from 1, in one segment.
QByteArray simpleBootstrap(int fragmentCount);

/// A manifest of one rendition: its stream name and its bootstrap as base64 text.
QByteArray manifest(const QByteArray &mediaUrl, const QByteArray &bootstrap,
                    const QByteArray &metadata = QByteArray());

/// One tag of an FLV file.
struct ReadTag
{
    int type = 0;
    qint64 timestampMs = 0;
    QByteArray data;
};

/// Reads an FLV file. `error` says what is wrong with it, back-pointers, order of time and the end
/// included; it is empty for a sound file.
QVector<ReadTag> readFlv(const QByteArray &file, QString &error);

} // namespace hds

#endif
