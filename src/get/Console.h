#ifndef CONSOLE_H
#define CONSOLE_H

#include "Scheduler.h"
#include "Screen.h"
#include "Summary.h"

#include <QElapsedTimer>

/// Tells people what happens: on a terminal by a line for each page that is at work, which is drawn
/// in its place, and one that stays when it has ended; elsewhere by plain lines. All that comes
/// from pages is cleaned before.
class Console final : public QObject
{
    Q_OBJECT

public:
    enum class Manner {
        Terminal,
        Plain,
        Quiet, ///< failures only
        Silent ///< what is not about pages only
    };

    /// What fits where the output goes and what the environment says of it.
    [[nodiscard]] static Manner mannerFor(const GetOptions &options, int fd);

    /// The scheduler must outlive the console's use of it.
    Console(const Scheduler &scheduler, Manner manner, int fd, bool isSimulation,
            QObject *parent = nullptr);

    /// Draws again, for a terminal of another size.
    void redraw();

    /// Says that the command has been asked to stop.
    void tellStop();

    /// The last lines.
    void finish(const Summary &summary);

    /// Something that is not about a page.
    void complain(const QString &text);

signals:
    /// Nobody reads any more.
    void readerGone();

private:
    void tellBegin(const PageTask *page);
    void tellRetry(const PageTask *page, int attempt, int most, qint64 pauseMs, RunClass cause);
    void tellEnd(const PageFacts &facts);
    void changeSoon();
    void say(const QString &line);
    void draw(const QStringList &staying);
    [[nodiscard]] QString footer() const;
    [[nodiscard]] QString prefixOf(const PageFacts &facts) const;
    [[nodiscard]] QString endText(const PageFacts &facts) const;
    [[nodiscard]] QString coloured(const char *word, const char *colour) const;

    const Scheduler &m_scheduler;
    const Manner m_manner;
    const int m_fd;
    const bool m_isSimulation;
    const bool m_hasColours;
    Screen m_screen;
    QTimer m_soon;
    QElapsedTimer m_clock;
    int m_ended = 0;
    int m_failed = 0;
    bool m_hasFinished = false;
};

#endif
