#ifndef HOSTEVENT_H
#define HOSTEVENT_H

#include "RunClass.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QStringList>

#include <variant>

/// What a host can be told: one type for each kind of thing, with what there is to know of it. How
/// it reads is the renderer's business.
namespace event {

/// Which of the two things that a run fetches is meant.
enum class What { Video, Thumb };

enum class Outcome { Succeeded, Failed, Canceled };

enum class Unit { Bytes, Fragments };

// The run.

/// A run begins to look for a video in this page.
struct ParsingBegun
{
    QString pageUrl;
};

/// The page or its player names a video.
struct CandidateFound
{
    QString address;
};

/// The candidates are settled and one of them is chosen: the result record, as JSON.
struct RecordMade
{
    QByteArray json;
};

/// No video was found.
struct ParsingFailed
{
};

/// The run ends because its caller asked for it.
struct Exiting
{
};

/// Another process asks a run to end.
struct ExitFlagSet
{
};

/// The block by which a run can be asked to end is gone.
struct MemoryDetached
{
};

/// The toolkit cannot start.
struct DisplayMissing
{
};

/// The page engine that is asked for is not installed.
struct EngineMissing
{
    QString path;
};

/// The path that the video shall get is no text.
struct SavePathUnreadable
{
};

/// The version of the Flash plug-in, or what stands in for it.
struct FlashVersion
{
    QString version;
};

/// One line of the usage text.
struct UsageLine
{
    QString text;
};

// Downloads.

struct DownloadBegun
{
    What what = What::Video;
    QString address{}; ///< of the stream, or of the file
    QString path{}; ///< where it goes; empty when that is not known yet
};

/// How far a download is.
struct Progress
{
    qint64 done = 0;
    qint64 total = 0;
    Unit unit = Unit::Bytes;
};

struct DownloadEnded
{
    What what = What::Video;
    Outcome outcome = Outcome::Failed;
};

/// A transfer that was broken off is tried again after a pause.
struct DownloadRetried
{
    int attempt = 0; ///< the number of the attempt that is to come, from 1
    int most = 0; ///< attempts after the first one
    qint64 pauseMs = 0;
    RunClass cause = RunClass::BrokenOff;
};

/// A transfer goes on where one before it stopped.
struct DownloadResumed
{
    qint64 fromByte = 0;
};

/// What an earlier transfer brought is of no use: it begins again.
struct DownloadBegunAgain
{
    QString reason;
};

/// A stream is through, and parts of it are missing from the file.
struct PartsMissing
{
    int missing = 0;
    int total = 0;
};

/// A stream is there, but cannot be fetched.
struct StreamRefused
{
    RunClass cause = RunClass::Unsupported;
    QString reason; ///< for people
};

/// All parts of a video that came in parts have ended, and are yet to be joined.
struct PartsEnded
{
    bool haveSucceeded = false;
};

/// A video that came in parts is done with.
struct PartsFinished
{
};

/// The folder that a stream is written to.
struct OutputFolder
{
    QString path;
};

/// The external program is started for a stream.
struct RtmpdumpStarted
{
    QStringList arguments;
};

/// Something that a user may look up later, and no host needs to act on.
struct Warning
{
    QString text;
};

/// What became of a run. Nothing follows it.
struct RunEnded
{
    RunClass runClass = RunClass::NothingFound;
    int exitCode = 0;
    QString path{}; ///< of the video; empty when there is none
    qint64 bytes = -1; ///< of the video on the disk; negative when there is none
    QByteArray sha256{}; ///< of a video that has come whole; empty when there is none
    QDateTime startedAt{};
    QDateTime analysedAt{}; ///< invalid when the analysis did not end
    QDateTime endedAt{};
};

// Streams of fragments.

struct StreamOptionSet
{
    QString name;
    QString value;
};

struct StreamProxySet
{
    int type = 0;
    QString host;
    int port = 0;
};

/// A document or a fragment is asked for.
struct PageAsked
{
    QString address;
    bool isPosted = false;
};

/// The answer leads to another address, which is asked for next.
struct PageRedirected
{
    QString target;
};

struct ManifestBegun
{
};

/// The manifest cannot be had.
struct ManifestMissing
{
    QString address;
};

/// A document is no XML.
struct XmlBroken
{
    int line = 0;
    int column = 0;
};

/// What a manifest offers, lowest first.
struct RenditionsFound
{
    QList<int> bitrates;
};

struct RenditionChosen
{
    int bitrate = 0;
};

/// The manifest offers nothing to choose from.
struct RenditionMissing
{
};

/// The bootstrap cannot be had.
struct BootstrapFailed
{
};

/// The manifest has no bootstrap and names none.
struct BootstrapMissing
{
};

/// What should be a bootstrap is something else.
struct BootstrapBroken
{
};

/// The bootstrap tells of no fragments.
struct StreamEmpty
{
};

struct FragmentsCounted
{
    int count = 0;
};

} // namespace event

using HostEvent = std::variant<
    event::ParsingBegun, event::CandidateFound, event::RecordMade, event::ParsingFailed,
    event::Exiting, event::ExitFlagSet, event::MemoryDetached, event::DisplayMissing,
    event::EngineMissing, event::SavePathUnreadable, event::FlashVersion, event::UsageLine,
    event::DownloadBegun, event::Progress, event::DownloadEnded, event::PartsEnded,
    event::PartsFinished, event::OutputFolder, event::RtmpdumpStarted, event::StreamOptionSet,
    event::StreamProxySet, event::PageAsked, event::PageRedirected, event::ManifestBegun,
    event::ManifestMissing, event::XmlBroken, event::RenditionsFound, event::RenditionChosen,
    event::RenditionMissing, event::BootstrapFailed, event::BootstrapMissing,
    event::BootstrapBroken, event::StreamEmpty, event::FragmentsCounted, event::DownloadRetried,
    event::DownloadResumed, event::DownloadBegunAgain, event::PartsMissing, event::StreamRefused,
    event::Warning, event::RunEnded>;

#endif
