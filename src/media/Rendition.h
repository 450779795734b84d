#ifndef RENDITION_H
#define RENDITION_H

#include <QString>
#include <QtGlobal>

/// One of the forms in which a presentation offers its picture or its sound, as far as the manifest
/// tells. A value.
struct Rendition
{
    enum class Kind {
        Picture, ///< a picture, with or without the sound that goes with it
        Sound, ///< sound alone
        Text ///< subtitles and the like, which are not fetched
    };

    Kind kind = Kind::Picture;
    QString id; ///< what the manifest calls it, or its address: tells it from the others
    QString name; ///< for the reader of a log; may be empty
    QString codecs; ///< as RFC 6381 writes them; may be empty
    QString language; ///< as RFC 5646 writes it; may be empty
    bool isDefault = false; ///< the one that a player takes unasked
    int width = 0; ///< pixels; 0 while unknown
    int height = 0; ///< pixels; 0 while unknown
    qint64 bandwidth = 0; ///< bits per second; 0 while unknown
    qint64 durationUs = 0; ///< microseconds; 0 while unknown, and for a live one

    /// What it takes in bytes, as bandwidth and duration have it; 0 where one of them is unknown.
    [[nodiscard]] qint64 estimatedBytes() const
    {
        constexpr double bitsPerByte = 8;
        constexpr double usPerSecond = 1e6;
        constexpr double most = 1e18; // beyond that nothing is a size
        return static_cast<qint64>(qMin(most,
                                        static_cast<double>(bandwidth) / bitsPerByte
                                            * (static_cast<double>(durationUs) / usPerSecond)));
    }
};

#endif
