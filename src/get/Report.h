#ifndef REPORT_H
#define REPORT_H

#include "Summary.h"

#include <QSaveFile>

/// A page (HTML) about all that was done, for people: a card for each video. It holds everything
/// that it shows, runs no script and asks nobody for anything. It is written as pages end, so that
/// many need no memory, and gets its name when it is whole.
class Report final
{
public:
    /// @param path of the file; one that is there is replaced in the end
    explicit Report(const QString &path);

    /// False when the file cannot be made.
    [[nodiscard]] bool open();

    void add(const PageFacts &page);

    /// Ends the page. False when anything of it could not be written.
    [[nodiscard]] bool finish(const Summary &summary, qint64 tookMs);

private:
    void write(const QString &html);

    QSaveFile m_file;
};

#endif
