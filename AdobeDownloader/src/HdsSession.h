#ifndef HDSSESSION_H
#define HDSSESSION_H

#include "AdobeData.h"
#include "AdobeOutputFile.h"
#include "AdobePreference.h"

#include <memory>

/// What belongs to one stream: its options, its description and its file. All that works on the
/// stream owns the three together: its last request may end after the download was destroyed. Two
/// sessions have nothing in common, so that two streams can run at once.
struct HdsSession final
{
    HdsSession() = default;
    Q_DISABLE_COPY(HdsSession)

    /// The one that is used where none is given; the GetInstance() of each part leads to it.
    [[nodiscard]] static const std::shared_ptr<HdsSession> &ofProcess();

    CAdobePreference options;
    CAdobeData data{options};
    CAdobeOutputFile output{options, data};
};

#endif
