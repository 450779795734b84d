#ifndef OUTPUTPATHS_H
#define OUTPUTPATHS_H

#include <QString>

/// Where a page run puts its files, and what they are called. Safe to copy and to use on any
/// thread.
class OutputPaths final
{
public:
    OutputPaths() = default;

    /// @param saveTo the video's path as the caller gave it; empty for one of the run's own making
    /// @param name what the run's own files are called, without extension
    /// @param extension of a video that the caller gave no path for
    OutputPaths(const QString &saveTo, const QString &name, const QString &extension);

    /// The folder "tmp" of the working folder, made when missing; if that cannot be made, a folder
    /// in the user's documents.
    [[nodiscard]] static QString defaultFolder();

    /// The folder that the caller named, which is not made, or the default one, which is.
    [[nodiscard]] QString folder() const;

    /// The video's path. The default folder is made when it lies there, as with folder().
    [[nodiscard]] QString video() const;

    /// Whether the caller gave the video's path, which then stays as it is.
    [[nodiscard]] bool isVideoGiven() const { return !m_saveTo.isEmpty(); }

    /// The thumbnail's path. The default folder is made when it lies there, as with folder().
    [[nodiscard]] QString thumb() const;

private:
    QString m_saveTo;
    QString m_name;
    QString m_extension;
};

#endif
