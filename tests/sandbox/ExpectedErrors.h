#ifndef EXPECTEDERRORS_H
#define EXPECTEDERRORS_H

#include "Landlock.h"

#include <QByteArray>
#include <QMap>

#include <cerrno>

#include <unistd.h>

using Errors = QMap<QByteArray, int>;

/// What stands between an attempt and its success.
enum class Wall {
    None, ///< nothing does
    Filter, ///< the filter of system calls
    Files, ///< the file system's walls, from the version that is given
    Both, ///< the filter, or else the file system's walls
};

struct AttemptRow
{
    const char *name;
    Wall wall;
    int version; ///< of Landlock
    int error; ///< inside the walls; outside an attempt succeeds
    bool needsRoot = false; ///< outside the walls only root succeeds
};

constexpr AttemptRow attemptRows[] = {
    {"write-outside", Wall::Files, 1, EACCES},
    {"change-outside", Wall::Files, 1, EACCES},
    {"truncate-outside", Wall::Files, 3, EACCES},
    {"folder-outside", Wall::Files, 1, EACCES},
    {"remove-outside", Wall::Files, 1, EACCES},
    {"move-outside", Wall::Files, 1, EACCES},
    {"symlink-outside", Wall::Files, 1, EACCES},
    {"rights-outside", Wall::Filter, 0, EPERM},
    {"read-private", Wall::Files, 1, EACCES},
    {"list-home", Wall::Files, 1, EACCES},
    {"link-private", Wall::Files, 1, EXDEV},
    {"read-shadow", Wall::Files, 1, EACCES, true},
    {"read-other-process", Wall::Files, 1, EACCES},
    {"exec", Wall::Both, 1, EACCES},
    {"spawn", Wall::Both, 1, EACCES},
    {"system", Wall::Both, 1, EPERM},
    {"exec-memory", Wall::Both, 1, EACCES},
    {"bind", Wall::Files, 4, EACCES},
    {"listen", Wall::Filter, 0, EPERM},
    {"connect", Wall::None, 0, 0}, // refused behind a proxy only
    {"local-socket", Wall::Filter, 0, EPERM},
    {"signal", Wall::Files, 6, EPERM},
    {"terminal", Wall::Filter, 0, EPERM},
    {"needed-folder", Wall::None, 0, 0},
    {"needed-write", Wall::None, 0, 0},
    {"needed-move", Wall::None, 0, 0},
    {"needed-read", Wall::None, 0, 0},
    {"needed-list", Wall::None, 0, 0},
    {"needed-remove", Wall::None, 0, 0},
    {"needed-null", Wall::None, 0, 0},
    {"needed-random", Wall::None, 0, 0},
    {"needed-system", Wall::None, 0, 0},
    {"needed-own-process", Wall::None, 0, 0},
    {"needed-socket", Wall::None, 0, 0},
};

/// What runAttempts() reports inside walls of which these are there.
/// @param version of Landlock; 0 for none
inline Errors expectedErrors(int version, bool hasFilter)
{
    Errors errors;
    for (const AttemptRow &row : attemptRows) {
        const bool isFiltered = hasFilter && (row.wall == Wall::Filter || row.wall == Wall::Both);
        const bool isWalled =
            version >= row.version && (row.wall == Wall::Files || row.wall == Wall::Both);
        const int freeError = row.needsRoot && ::geteuid() != 0 ? EACCES : 0;
        errors.insert(row.name, isFiltered ? EPERM : isWalled ? row.error : freeError);
    }
    return errors;
}

/// The same behind a proxy.
inline Errors expectedErrorsBehindProxy(int version, bool hasFilter)
{
    constexpr int firstVersion = 4;
    Errors errors = expectedErrors(version, hasFilter);
    errors["connect"] = version >= firstVersion ? EACCES : 0;
    return errors;
}

/// The lines of runAttempts().
inline Errors errorsOf(const QByteArray &report)
{
    Errors errors;
    for (const QByteArray &line : report.split('\n')) {
        const int blank = line.lastIndexOf(' ');
        if (blank > 0)
            errors.insert(line.left(blank), line.mid(blank + 1).toInt());
    }
    return errors;
}

/// The difference of two sets of errors as text, so that a failed comparison can be read.
inline QByteArray differences(const Errors &actual, const Errors &expected)
{
    QByteArray text;
    for (auto it = expected.begin(); it != expected.end(); ++it) {
        const int error = actual.value(it.key(), -1);
        if (error != it.value())
            text += it.key() + ": " + QByteArray::number(error) + " instead of "
                + QByteArray::number(it.value()) + "; ";
    }
    for (auto it = actual.begin(); it != actual.end(); ++it) {
        if (!expected.contains(it.key()))
            text += "unexpected " + it.key() + "; ";
    }
    return text;
}

#endif
