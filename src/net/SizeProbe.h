#ifndef SIZEPROBE_H
#define SIZEPROBE_H

#include "NetSettings.h"

#include <QUrl>

/// Asks servers how long a file is, without fetching it. Waits in nested event loops, so whoever
/// asks looks at its own state again afterwards. Sends no cookies but what the way to the file
/// sets; main thread.
class SizeProbe final
{
public:
    explicit SizeProbe(const NetSettings &settings);

    /// The length in bytes that the server declares for an http or https address, redirects within
    /// these followed; 0 when it declares none or does not answer. Without a limit for silence
    /// there is no time-out.
    [[nodiscard]] qint64 sizeOf(const QUrl &url) const;

    /// The same for an address as it stands in a page; 0 when it does not begin with "http".
    [[nodiscard]] qint64 sizeOf(const QString &address) const;

private:
    NetSettings m_settings;
};

#endif
