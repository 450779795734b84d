#ifndef PAGESNAPSHOT_H
#define PAGESNAPSHOT_H

#include <QMetaType>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

/// What a page's document holds at one moment, as far as a scan for media reads it. A value: it
/// outlives the page and may come from another process.
struct PageSnapshot
{
    /// Names and values of an element's attributes, in the order in which they stand.
    using Attributes = QVector<QPair<QString, QString>>;

    QString source; ///< the document's markup; empty when there is no document yet
    bool hasRootAttributes = false; ///< whether the root element has any attributes
    QVector<Attributes> params; ///< of all "param" elements, in the document's order
    QStringList media; ///< absolute addresses that media elements name, if the engine tells them
};

Q_DECLARE_METATYPE(PageSnapshot)

#endif
