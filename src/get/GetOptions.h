#ifndef GETOPTIONS_H
#define GETOPTIONS_H

#include "NameTemplate.h"

#include <QStringList>

/// What the user of the command wants.
struct GetOptions
{
    /// What a command line leads to.
    enum class Wish { Fetch, ShowHelp, ShowVersion, Complain };

    Wish wish = Wish::Fetch;
    QString complaint; ///< of Wish::Complain

    QStringList addresses;
    QStringList lists; ///< paths of lists of addresses; "-" is standard input
    NameTemplate name;
    QString folder = QStringLiteral(".");
    QString archive; ///< a path; empty for none
    QString cookies; ///< the same
    QString report; ///< the same
    int jobs = 4; ///< pages at once
    int perHost = 2; ///< of them at one host
    int retries = 3; ///< of a transfer that breaks off, and of a page
    int connections = 8; ///< of one video, as many as streams have without being told
    int quality = 0; ///< picture height; 0 for no wish
    int format = 0; ///< as the run numbers them
    int timeoutS = 120; ///< of the search in a page
    int stallS = 60; ///< of silence
    int deadlineS = 43200; ///< of a page in all
    QString language;
    QString proxy; ///< as the run wants it; its host still may be a name
    bool wantsThumb = false;
    bool tellsJson = false;
    bool isQuiet = false;
    bool isSimulation = false;

    /// Reads a command line, without the program's name.
    [[nodiscard]] static GetOptions parse(const QStringList &arguments);

    /// What "--help" prints.
    [[nodiscard]] static QString helpText();
};

#endif
