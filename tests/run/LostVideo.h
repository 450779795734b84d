#ifndef LOSTVIDEO_H
#define LOSTVIDEO_H

#include "PageRun.h"

/// A video that a run finds and does not live to download.
namespace lost {

constexpr int smallBytes = 2000000; ///< too few to end an analysis

/// Serves a page with such a video, which runs the script once the video has been under way for a
/// while. Returns the page's address.
QString serveSmallVideo(ScriptedServer &server, const QByteArray &video, const QByteArray &script);

/// The last lines of the run, which say that the video was found and is not there.
QByteArray lines(const ScriptedServer &server);

} // namespace lost

#endif
