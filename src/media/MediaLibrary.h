#ifndef MEDIALIBRARY_H
#define MEDIALIBRARY_H

#include "MediaJoiner.h"
#include "Rendition.h"

#include <QString>
#include <QVector>

#include <memory>

/// The module of the program that takes media apart and puts it together. What it needs in turn
/// takes as long to load as the rest of the program, so it is loaded once a stream comes. Main
/// thread.
class MediaLibrary final
{
public:
    MediaLibrary() = delete;

    /// @param tracks what each of the tracks is. Where there are tracks of sound, what sound the
    ///               others have is left out.
    using Maker = std::unique_ptr<MediaJoiner> (*)(const QVector<Rendition> &tracks,
                                                   const MediaJoiner::Open &open);

    /// Where it lies: beside the program.
    [[nodiscard]] static QString path();

    /// Takes what is linked in already.
    static void use(Maker maker);

    /// Returns whether it is there; the log tells why not.
    [[nodiscard]] static bool load();

    /// Only once it has been loaded.
    [[nodiscard]] static std::unique_ptr<MediaJoiner> makeJoiner(const QVector<Rendition> &tracks,
                                                                 const MediaJoiner::Open &open);
};

/// What the module gives away; the name of this function is known to both sides.
extern "C" __attribute__((visibility("default"))) MediaLibrary::Maker mediaJoinerMaker();

#endif
