#ifndef CONFINEDRUN_H
#define CONFINEDRUN_H

#include "ConfinedPlaces.h"
#include "PageRun.h"

/// A run of the program whose folders are apart from each other.
class ConfinedRun final
{
public:
    ConfinedRun()
        : m_places(m_run.folder())
    {
        set(m_places.variables());
    }

    void set(const QMap<QString, QString> &variables)
    {
        for (auto it = variables.begin(); it != variables.end(); ++it)
            m_run.setEnvironment(it.key(), it.value());
    }

    [[nodiscard]] QString path(const char *sub) const { return m_places.path(sub); }

    [[nodiscard]] QByteArray report(const char *who) const
    {
        return readFile(m_places.path("out/report-") + option(who));
    }

    ProgramRun *operator->() { return &m_run; }

private:
    ProgramRun m_run;
    ConfinedPlaces m_places;
};

#endif
