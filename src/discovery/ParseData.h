#ifndef PARSEDATA_H
#define PARSEDATA_H

#include "ManifestAddress.h"

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>

struct RunOptions;

/// One candidate: a media file, or a stream that becomes one.
struct VideoFile
{
    QMap<QString, QString> urls; ///< the address under its transport kind
    QString urlType; ///< "rtmp" or "http"; of a stream by a manifest, "hls", "dash" or "hds"
    QString contentType; ///< as the server reported it; may stay empty
    QString strFormat; ///< extension guessed from the address, such as "mp4"; may be empty
    qint32 width = 0; ///< pixels; 0 while unknown
    qint32 height = 0; ///< pixels; 0 while unknown
    qint32 duration = 0; ///< seconds; 0 while unknown
    qint64 nSize = 0; ///< bytes; 0 while unknown; of a stream, what its manifest lets expect
    /// What the address is a manifest of; None for a file.
    ManifestAddress::Kind manifest = ManifestAddress::Kind::None;
    qint64 weight = 0; ///< bytes that a stream of unknown size is compared with others by

    /// A candidate that knows only its address and what can be read from it.
    [[nodiscard]] static VideoFile fromAddress(const QString &url);

    [[nodiscard]] QString address() const;
    [[nodiscard]] bool isStream() const { return manifest != ManifestAddress::Kind::None; }

    /// The size that it is compared with others by.
    [[nodiscard]] qint64 comparedBytes() const { return isStream() && nSize == 0 ? weight : nSize; }
};

/// What a page run has found and decided.
///
/// Candidates are appended, and each address is there once. An index stays valid once the analysis
/// has ended; before, what turns out to be a piece of a stream is taken out again.
class ParseData final
{
public:
    QStringList playList; ///< further page addresses
    QString pageSource; ///< the page's HTML; title, thumbnail and canonical address come from it
    qint32 selectedVideo = -1; ///< index into fileList; negative while none is chosen
    bool pageFlag = false;
    bool succeeded = false; ///< whether the video was downloaded
    QList<VideoFile> fileList; ///< in the order first seen
    QDateTime startTime;
    QDateTime endTime; ///< when analysis ended

    /// Adds a candidate. Returns false when the address is there already.
    bool add(const QString &url);
    [[nodiscard]] bool contains(const QString &url) const;

    /// The candidate of that address, or null; valid until fileList next changes.
    [[nodiscard]] VideoFile *get(const QString &url);

    /// Takes out the candidates that the check is true for.
    void remove(const std::function<bool(const VideoFile &)> &isUnwanted);

    /// Sets the size of the address unless it is known already.
    void setVideoSize(const QString &url, qint64 sizeBytes);

    /// Whether anything was found.
    [[nodiscard]] bool isPlayList() const;

    /// Whole seconds from start to end; 0 while either is unknown.
    [[nodiscard]] int getTimeUsed() const;
    [[nodiscard]] QString getThumbUrl() const;
    [[nodiscard]] QString getHtmlTitle() const;
    [[nodiscard]] QString getCanonicalUrl() const;

    /// A path made from the page's title; empty without title or chosen file.
    [[nodiscard]] QString getSmartVideoFullPath() const;

    /// The path to which the chosen video is written.
    [[nodiscard]] QString getVideoFullPath() const;
    [[nodiscard]] QString getVideoFullPath(const RunOptions &options) const;

    /// The record for the host: one compact JSON object.
    [[nodiscard]] QByteArray toJson() const;

    /// Appends "playList" and "fileList" of such a record; anything else yields nothing.
    void fromJson(const QByteArray &document);

private:
    [[nodiscard]] QString smartVideoFullPath(const QString &folder) const;
};

#endif
