#ifndef LEFTFILES_H
#define LEFTFILES_H

#include <QString>

/// Temporary files of runs that ended without tidying up. The media framework keeps what it plays
/// in one, which may be large.
class LeftFiles final
{
public:
    LeftFiles() = delete;

    /// Removes them from where runs of this user keep them. Those of runs that still go on stay.
    /// To be called before the run is confined.
    static void removeAll();

    /// Removes those in one folder.
    static void removeFrom(const QString &folder);
};

#endif
