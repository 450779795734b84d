#ifndef PAGESCRIPT_H
#define PAGESCRIPT_H

#include <QString>

/// The scripts that the run has run in pages.
class PageScript final
{
public:
    PageScript() = delete;

    /// The text of a script of this folder, by its name.
    [[nodiscard]] static QString text(const char *name);
};

#endif
