#ifndef WALLEDRUN_H
#define WALLEDRUN_H

#include "PageRun.h"
#include "WalledPlaces.h"

/// A run of the program whose folders are apart from each other.
class WalledRun final
{
public:
    WalledRun()
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
    WalledPlaces m_places;
};

#endif
