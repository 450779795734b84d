#ifndef PAGEKIND_H
#define PAGEKIND_H

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QMetaType>
#include <QStringList>

#include <initializer_list>

/// The engines that a kind of page works with.
enum class Engines { Chromium, Both };

/// One kind of page, and what has to come of it.
struct PageKind
{
    const char *name;
    const char *page; ///< of the site, without extension
    const char *address; ///< of what must be chosen, as pages write it; its query may be more
    const char *file; ///< of the media: what must be on the disk, byte for byte
    Engines engines = Engines::Chromium;
    int candidates = 1; ///< rows of the record
    bool isInSource = false; ///< the address stands in the page's source, which is told
};

Q_DECLARE_METATYPE(PageKind)

/// Adds a row for every kind and engine that the build has, or the one that the environment
/// variable CLIPWEIR_PAGE_ENGINE asks for.
void addPageKinds(std::initializer_list<PageKind> kinds);

/// Runs the kind of the current row and compares lines, record, file and exit code.
void runPageKind();

/// The options that choose an engine.
[[nodiscard]] QStringList engineOptions(const QString &engine);

/// The engines of the build.
[[nodiscard]] QStringList builtEngines();

/// The record that a run has told; empty without one.
[[nodiscard]] QJsonObject recordOf(const QByteArray &errorOutput);

/// The addresses of its candidates.
[[nodiscard]] QStringList candidatesOf(const QJsonObject &record);

#endif
