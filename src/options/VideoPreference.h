#ifndef VIDEOPREFERENCE_H
#define VIDEOPREFERENCE_H

#include "OutputPaths.h"

#include <QNetworkProxy>
#include <QString>

/// A proxy as the caller named it. Numbers are unchecked; toNetworkProxy() checks them.
struct ProxySetting
{
    qint32 type = QNetworkProxy::NoProxy; ///< numbered as QNetworkProxy::ProxyType
    QString host; ///< a numeric address; empty for none
    qint32 port = 0;

    /// The proxy for a network manager, by the rule of NetworkProxy.
    [[nodiscard]] QNetworkProxy toNetworkProxy() const;
};

/// The options of the page tool and the names of the files it writes.
///
/// Nothing is parsed up front: every getter looks its option up in the application's argument
/// list, whose every element counts, values included. A key matches with the prefix "-", "--" or
/// "/" and in any letter case; its first occurrence wins. No getter reports an error: a missing or
/// malformed value gives the default. An application object must exist. Safe on any thread.
class CVideoPreference final
{
public:
    /// Codes of the option "format".
    enum EFormat { AnyFormat = 0, FlvFormat = 1, Mp4Format = 2 };

    /// What opens the page: the toolkit's engine, a current one, or the first that will do.
    enum class Engine { Webkit, Chromium, Auto };

    static CVideoPreference *instance();

    [[nodiscard]] bool isSameOptionKey(const QString &arg, const QString &key) const;
    [[nodiscard]] bool GetOptionState(const QString &key) const;
    [[nodiscard]] QString GetOptionString(const QString &key, const QString &defaultValue) const;
    [[nodiscard]] int GetOptionValue(const QString &key, int defaultValue) const;

    [[nodiscard]] QString GetPageUrl() const;
    [[nodiscard]] int GetTimeOut() const; ///< seconds; negative for no limit
    [[nodiscard]] int GetStall() const; ///< seconds of silence that end a request; 0 for no limit
    [[nodiscard]] int GetDeadline() const; ///< seconds from the start to the end of the run; 0 for
                                           ///< no limit
    [[nodiscard]] qint64
    GetMemoryLimit() const; ///< bytes that an analysis may take; 0 for no limit
    [[nodiscard]] int GetVideoFormat() const; ///< an EFormat, or any other number as given
    [[nodiscard]] int GetQuality() const; ///< picture height; 0 for no wish
    [[nodiscard]] qint64 GetTotalSize() const; ///< bytes; 0 when not given
    [[nodiscard]] ProxySetting GetProxy() const;
    [[nodiscard]] bool GetThumb() const;
    [[nodiscard]] bool GetPartialDown() const;
    [[nodiscard]] bool GetSmartName() const; ///< always false with "saveto"
    [[nodiscard]] bool GetResume() const; ///< true unless "noresume" is given
    [[nodiscard]] bool GetKeepImage() const;
    [[nodiscard]] bool GetLog() const;
    [[nodiscard]] bool GetShow() const;
    [[nodiscard]] bool GetInfoFlag() const;
    [[nodiscard]] bool GetExitFlag() const;
    [[nodiscard]] bool GetSupportF4f() const;
    [[nodiscard]] bool GetStreams() const; ///< streams by playlist or manifest are candidates
    [[nodiscard]] QString GetLanguage() const; ///< of their sound; empty for no wish
    [[nodiscard]] int GetConnections() const; ///< of theirs at once, 1 to 32
    [[nodiscard]] int GetFileConnections() const; ///< of one file; 1 unless asked for
    [[nodiscard]] bool GetParent() const; ///< the run ends when its host dies
    [[nodiscard]] bool GetNoSandbox() const;
    [[nodiscard]] bool GetNoClick() const;
    [[nodiscard]] Engine GetEngine() const; ///< the default for an unknown one
    [[nodiscard]] bool GetEvents() const; ///< events on standard output
    [[nodiscard]] bool GetStrict() const; ///< the exit code tells what became of the run
    [[nodiscard]] bool GetContinue() const; ///< goes on with what an earlier run left, if proven
    [[nodiscard]] int GetRetries() const; ///< further attempts at a transfer that broke off
    [[nodiscard]] bool GetEager() const; ///< the analysis ends as soon as the video is found

    /// The MD5 of the page address as 32 upper-case hexadecimal digits: the name of this page's
    /// files and of its stop flag.
    [[nodiscard]] QString GetPageUrlMD5() const;

    /// Where this page's files go, as the getters below have them.
    [[nodiscard]] OutputPaths GetOutputPaths() const;

    [[nodiscard]] QString GetDefaultOutDir() const;
    [[nodiscard]] QString GetOutDir() const;
    [[nodiscard]] QString GetVideoFullPath() const;
    [[nodiscard]] QString GetThumbFullPath() const;

    /// A file of this page in the log folder, which is made when missing.
    [[nodiscard]] QString GetLogFullPath(const QString &ext) const;

    /// Today's file in the log folder, which is made when missing.
    [[nodiscard]] QString GetCsvFullPath(const QString &ext) const;

private:
    CVideoPreference() = default;
    ~CVideoPreference() = default;
    Q_DISABLE_COPY(CVideoPreference)
};

#endif
