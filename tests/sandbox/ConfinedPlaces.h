#ifndef CONFINEDPLACES_H
#define CONFINEDPLACES_H

#include "TestFiles.h"

#include <QDir>
#include <QMap>
#include <QProcessEnvironment>

/// The folders of a run as they lie on a user's machine, each apart from the others, below one
/// folder: "home" with "private.txt", "out" for output, "outside" for what is nobody's business,
/// and "temporary".
class ConfinedPlaces final
{
public:
    explicit ConfinedPlaces(const QString &folder)
        : m_folder(folder)
    {
        for (const char *const sub : {"home", "out", "outside", "temporary"})
            QDir(folder).mkpath(QLatin1String(sub));
        writeFile(path("home/private.txt"), "private");
        writeFile(path("outside/kept"), "kept");
        for (const char *const who : {"engine", "thread", "child"}) {
            writeFile(path("outside/victim-") + QLatin1String(who), "victim");
            writeFile(path("outside/moved-") + QLatin1String(who), "moved");
        }
    }

    [[nodiscard]] QString path(const char *sub) const
    {
        return m_folder + QLatin1Char('/') + QLatin1String(sub);
    }

    /// The variables that lead a run, and the attempts in it, to these places.
    [[nodiscard]] QMap<QString, QString> variables() const
    {
        return {{QStringLiteral("HOME"), path("home")},
                {QStringLiteral("XDG_CONFIG_HOME"), path("home/.config")},
                {QStringLiteral("XDG_DATA_HOME"), path("home/.local/share")},
                {QStringLiteral("XDG_CACHE_HOME"), path("home/.cache")},
                {QStringLiteral("CLIPWEIR_COOKIES"), path("home/cookies/cookies.txt")},
                {QStringLiteral("TMPDIR"), path("temporary")},
                {QStringLiteral("ATTEMPTS_OUTPUT"), path("out")},
                {QStringLiteral("ATTEMPTS_OUTSIDE"), path("outside")},
                {QStringLiteral("ATTEMPTS_PRIVATE"), path("home/private.txt")}};
    }

private:
    QString m_folder;
};

/// The variables with which a program is started on a kernel that lacks something; see
/// olderkernel.cpp.
inline QMap<QString, QString> kernelVariables(const QString &library, const QString &lacks)
{
    const QString preload = qEnvironmentVariable("LD_PRELOAD");
    return {{QStringLiteral("LD_PRELOAD"),
             preload.isEmpty() ? library : preload + QLatin1Char(':') + library},
            {QStringLiteral("ASAN_OPTIONS"), QStringLiteral("verify_asan_link_order=0")},
            {QStringLiteral("KERNEL_LACKS"), lacks}};
}

#endif
