#ifndef RENDITIONCHOICE_H
#define RENDITIONCHOICE_H

#include "Rendition.h"

#include <QString>
#include <QVector>

/// Which of a presentation's renditions are fetched. Pure functions; the same rules for every kind
/// of manifest.
class RenditionChoice final
{
public:
    RenditionChoice() = delete;

    /// The picture: by height as a candidate file is picked, which is the one whose height is
    /// nearest to the wish and that comes first among equals in that, heights of 10,000 pixels
    /// from it and unknown ones left aside. Without a wish, or where nothing meets it, the highest.
    /// Of several with that height the one of the highest bandwidth, then the first.
    /// @param wantedHeight pixels; 0 or less for no wish
    /// Returns an index into the list, or -1 when there is no picture in it.
    [[nodiscard]] static int picture(const QVector<Rendition> &offered, int wantedHeight);

    /// The sound: of the wanted language; else, or without a wish, the default one; else the first
    /// one's language. Among those the one of the highest bandwidth, then the first.
    /// "en" wants "en-GB", too, if there is no plain "en"; letter case is all one.
    /// Returns an index into the list, or -1 when there is no sound in it.
    [[nodiscard]] static int sound(const QVector<Rendition> &offered,
                                   const QString &wantedLanguage);
};

#endif
