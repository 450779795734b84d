#ifndef PARSEDATA_H
#define PARSEDATA_H

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

struct RunOptions;

/// One candidate media file.
struct VideoFile
{
    QMap<QString, QString> urls; ///< the address under its transport kind
    QString urlType; ///< "rtmp" or "http"
    QString contentType; ///< as the server reported it; may stay empty
    QString strFormat; ///< extension guessed from the address, such as "mp4"; may be empty
    qint32 width = 0; ///< pixels; 0 while unknown
    qint32 height = 0; ///< pixels; 0 while unknown
    qint32 duration = 0; ///< seconds; 0 while unknown
    qint64 nSize = 0; ///< bytes; 0 while unknown

    /// A candidate that knows only its address and what can be read from it.
    [[nodiscard]] static VideoFile fromAddress(const QString &url);

    [[nodiscard]] QString address() const;
};

/// What a page run has found and decided.
///
/// Candidates are only ever appended, so an index stays valid; each address is there once.
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
