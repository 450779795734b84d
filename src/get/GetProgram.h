#ifndef GETPROGRAM_H
#define GETPROGRAM_H

#include "Archive.h"
#include "Console.h"
#include "CookieCopy.h"
#include "JsonOutput.h"
#include "PageList.h"
#include "Report.h"
#include "SignalWatch.h"

#include <optional>

/// The command as a whole: from its options to its exit code.
class GetProgram final : public QObject
{
    Q_OBJECT

public:
    explicit GetProgram(GetOptions options);
    ~GetProgram() override;

    /// Does what the options want. An application object must exist, and not be at work.
    /// @return the exit code
    [[nodiscard]] int exec();

    /// The exit code of a command line that cannot be understood. No class has it.
    static constexpr int misuse = 2;

private:
    [[nodiscard]] bool prepare();
    [[nodiscard]] bool readLists(PageList &pages);
    [[nodiscard]] bool findProgram();
    [[nodiscard]] bool findProxy();
    [[nodiscard]] bool takeCookies();
    [[nodiscard]] bool beginReport();
    [[nodiscard]] bool refuse(int exitCode, const QString &reason);
    void connectAll();
    void finish();
    void askToStop();
    void stop();

    GetOptions m_options;
    RunPlace m_place;
    QStringList m_pages;
    Archive m_archive;
    std::optional<CookieCopy> m_cookies;
    std::optional<QTemporaryDir> m_scratch;
    std::optional<Scheduler> m_scheduler;
    std::optional<Console> m_console;
    std::optional<JsonOutput> m_json;
    std::optional<Report> m_report;
    Summary m_summary;
    QElapsedTimer m_clock;
    SignalWatch m_signals;
    int m_refusal = 0; ///< the exit code of prepare()
    int m_stopsAsked = 0;
};

#endif
