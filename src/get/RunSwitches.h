#ifndef RUNSWITCHES_H
#define RUNSWITCHES_H

#include "GetOptions.h"

/// The command line of a page run: the one place that knows what the program is asked for.
namespace RunSwitches {

/// @param videoPath where the run shall write the video, absolute
[[nodiscard]] QStringList forPage(const GetOptions &options, const QString &address,
                                  const QString &videoPath);

} // namespace RunSwitches

#endif
