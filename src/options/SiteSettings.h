#ifndef SITESETTINGS_H
#define SITESETTINGS_H

#include <QString>

/// What the program knows of a single site, from the settings file "clipweir.conf" (ini form) in
/// the user's configuration folder, or else in a system-wide one.
struct SiteSettings
{
    QString huluPagePattern; ///< QRegExp pattern; a page whose address has a first capture matches
    QString huluSelectionEndpoint; ///< part of an address; empty matches none

    [[nodiscard]] static SiteSettings load();
};

#endif
