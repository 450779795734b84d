#ifndef HDSMANIFEST_H
#define HDSMANIFEST_H

#include "Rendition.h"

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <QVector>

#include <optional>

/// A manifest of HTTP Dynamic Streaming (Adobe Flash Media Manifest File Format Specification, all
/// versions up to 3.0), as packagers write it: elements and attributes are told by their local
/// names in any letter case, whatever prefix stands for the namespace. A value; read on any thread.
///
/// What comes from outside is bounded: the text by XmlLimits, renditions and bootstraps by the
/// number below. No entity is expanded and nothing is fetched from here.
struct HdsManifest
{
    static constexpr qint64 maxBytes = 16 * 1024 * 1024; ///< of the document
    static constexpr int maxMedia = 1000; ///< and bootstraps

    /// A rendition, or another manifest that has it.
    struct Media
    {
        /// As far as it is told by attributes, else by the metadata. Its id is the address of the
        /// manifest that it is in, if a set names that; else its own.
        Rendition rendition;
        QUrl holder; ///< the manifest that it is in
        bool isAlternate = false; ///< to be played with another one, not by itself
        bool isProtected = false; ///< it has a header of digital rights management
        QUrl address; ///< what its fragments' addresses begin with
        QUrl manifest; ///< of the other manifest; empty when this one has it
        QUrl bootstrapAddress; ///< empty: the bootstrap is in the manifest
        QByteArray bootstrap; ///< empty when there is none
        QByteArray metadata; ///< the data of a script tag; may be empty
    };

    QVector<Media> media; ///< in the order of the document; at least one
    qint64 durationUs = 0; ///< 0 while unknown

    /// Reads a document. None when it is no manifest or not within the limits; why, is told.
    /// @param address where it came from
    [[nodiscard]] static std::optional<HdsManifest> parse(const QByteArray &document,
                                                          const QUrl &address, QString &reason);

    /// The address with the query of the manifest that names it, which servers may insist on: if it
    /// has none of its own and is on the same server.
    [[nodiscard]] static QUrl withQuery(const QUrl &address, const QUrl &manifest);
};

#endif
