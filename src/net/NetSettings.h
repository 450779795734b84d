#ifndef NETSETTINGS_H
#define NETSETTINGS_H

#include "PageHeaders.h"

#include <QNetworkProxy>

#include <memory>

/// How the run reaches servers, the same for everything that it asks them for.
struct NetSettings
{
    QNetworkProxy proxy; ///< the application's unless one is set
    qint64 stallMs = 0; ///< the caller's limit for silence, in milliseconds; 0 for none
    std::shared_ptr<const PageHeaders> pageHeaders; ///< go along with requests; null for none
};

#endif
