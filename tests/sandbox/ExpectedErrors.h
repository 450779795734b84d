#ifndef EXPECTEDERRORS_H
#define EXPECTEDERRORS_H

#include "Landlock.h"

#include <QByteArray>
#include <QMap>

#include <cerrno>

#include <unistd.h>

using Errors = QMap<QByteArray, int>;

/// What stands between an attempt and its success.
enum class Guard {
    None, ///< nothing does
    Filter, ///< the filter of system calls
    Files, ///< the file system's sandbox, from the version that is given
    Both, ///< the filter, or else the file system's sandbox
};

struct AttemptRow
{
    const char *name;
    Guard guard;
    int version; ///< of Landlock
    int error; ///< inside the sandbox; outside an attempt succeeds
    bool needsRoot = false; ///< outside the sandbox only root succeeds
};

constexpr AttemptRow attemptRows[] = {
    {"write-outside", Guard::Files, 1, EACCES},
    {"change-outside", Guard::Files, 1, EACCES},
    {"truncate-outside", Guard::Files, 3, EACCES},
    {"folder-outside", Guard::Files, 1, EACCES},
    {"remove-outside", Guard::Files, 1, EACCES},
    {"move-outside", Guard::Files, 1, EACCES},
    {"symlink-outside", Guard::Files, 1, EACCES},
    {"rights-outside", Guard::Filter, 0, EPERM},
    {"read-private", Guard::Files, 1, EACCES},
    {"list-home", Guard::Files, 1, EACCES},
    {"link-private", Guard::Files, 1, EXDEV},
    {"read-shadow", Guard::Files, 1, EACCES, true},
    {"read-other-process", Guard::Files, 1, EACCES},
    {"exec", Guard::Both, 1, EACCES},
    {"spawn", Guard::Both, 1, EACCES},
    {"system", Guard::Both, 1, EPERM},
    {"exec-memory", Guard::Both, 1, EACCES},
    {"bind", Guard::Files, 4, EACCES},
    {"listen", Guard::Filter, 0, EPERM},
    {"connect", Guard::None, 0, 0}, // refused behind a proxy only
    {"local-socket", Guard::Filter, 0, EPERM},
    {"signal", Guard::Files, 6, EPERM},
    {"terminal", Guard::Filter, 0, EPERM},
    {"needed-folder", Guard::None, 0, 0},
    {"needed-write", Guard::None, 0, 0},
    {"needed-move", Guard::None, 0, 0},
    {"needed-read", Guard::None, 0, 0},
    {"needed-list", Guard::None, 0, 0},
    {"needed-remove", Guard::None, 0, 0},
    {"needed-null", Guard::None, 0, 0},
    {"needed-random", Guard::None, 0, 0},
    {"needed-system", Guard::None, 0, 0},
    {"needed-own-process", Guard::None, 0, 0},
    {"needed-socket", Guard::None, 0, 0},
};

/// What runAttempts() reports inside a sandbox of these parts.
/// @param version of Landlock; 0 for none
inline Errors expectedErrors(int version, bool hasFilter)
{
    Errors errors;
    for (const AttemptRow &row : attemptRows) {
        const bool isFiltered =
            hasFilter && (row.guard == Guard::Filter || row.guard == Guard::Both);
        const bool isConfined =
            version >= row.version && (row.guard == Guard::Files || row.guard == Guard::Both);
        const int freeError = row.needsRoot && ::geteuid() != 0 ? EACCES : 0;
        errors.insert(row.name, isFiltered ? EPERM : isConfined ? row.error : freeError);
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
        const int space = line.lastIndexOf(' ');
        if (space > 0)
            errors.insert(line.left(space), line.mid(space + 1).toInt());
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
