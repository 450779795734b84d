#ifndef RUNOPTIONS_H
#define RUNOPTIONS_H

#include "NetSettings.h"
#include "OutputPaths.h"
#include "PageHeaders.h"
#include "VideoPreference.h"

#include <memory>

/// What the caller wants of a page run. Read once, when the run begins, and passed on: whoever
/// needs an option holds these, so that nothing changes while the run goes on. Safe to copy and to
/// read on any thread.
struct RunOptions
{
    QString pageUrl;
    QString pageId; ///< what this page's files are named by
    int timeoutS = 0; ///< negative for no limit
    int stallS = 0; ///< seconds of silence that end a request; 0 for no limit
    qint64 memoryBytes = 0; ///< that an analysis may take; 0 for no limit
    int format = CVideoPreference::AnyFormat; ///< an EFormat, or any other number as given
    int quality = 0; ///< picture height; 0 for no wish
    /// The bytes that the video has in all, of which a run before may have brought some; 0 when
    /// that is not known or nothing shall be resumed. Only by it a file on the disk is known as a
    /// part or the whole of the video, and a candidate as the one that is wanted.
    qint64 expectedBytes = 0;
    OutputPaths paths;
    ProxySetting proxy;
    bool isProxyNamed = false; ///< whether there is a setting at all, however useless
    bool wantsThumb = false;
    bool wantsBeginningOnly = false;
    bool usesSmartName = false;
    bool resumes = true;
    bool keepsImages = false; ///< the page may load its pictures
    bool followsManifests = false; ///< streams by playlist or manifest (HLS, DASH) are candidates
    QString language; ///< of their sound; empty for no wish
    int connections = 8; ///< how many of their segments are fetched at once
    int fileConnections = 1; ///< how many bring one file
    bool isLogged = false;
    bool isShown = false;
    bool isConfined = true; ///< to a sandbox
    CVideoPreference::Engine engine = CVideoPreference::Engine::Webkit;
    bool mayPress = true; ///< what a visitor would press to see the video
    QString chromiumPath; ///< of the current engine's program
    /// How the page has asked servers, if that is how they are to be asked for the video; shared by
    /// all that are about the same page.
    std::shared_ptr<PageHeaders> pageHeaders;
    bool followsStreams = false; ///< those of HTTP Dynamic Streaming
    bool tellsEvents = false; ///< on standard output, with the sum of the file
    bool isStrict = false; ///< the exit code tells what became of the run, and half is no success
    bool continues = false; ///< goes on with what an earlier run left of the same file
    int retries = 0; ///< further attempts at a transfer that broke off
    bool isEager = false; ///< the analysis ends as soon as the video is found

    /// The options of this process's command line. An application object must exist.
    [[nodiscard]] static RunOptions ofCommandLine();

    [[nodiscard]] NetSettings netSettings() const;

    /// The result file of the day, in the log folder, which is made when missing.
    [[nodiscard]] QString csvPath() const;
};

#endif
