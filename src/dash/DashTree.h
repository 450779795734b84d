#ifndef DASHTREE_H
#define DASHTREE_H

#include <QByteArray>
#include <QString>
#include <QVector>

#include <map>
#include <memory>
#include <optional>
#include <vector>

/// A manifest's elements as they are written, whatever their namespace and whatever they mean. The
/// many small ones of timelines and lists are kept as numbers and texts in their parents.
struct DashTree
{
    static constexpr int maxElements = 100000; ///< but for those small ones
    static constexpr int maxDepth = 32;

    /// An S element; a missing attribute is none.
    struct Step
    {
        std::optional<qint64> time;
        std::optional<qint64> duration;
        std::optional<qint64> repeats;
    };

    /// A SegmentURL element.
    struct Address
    {
        QString media;
        QString range;
    };

    QString name;
    std::map<QString, QString> attributes;
    QString text;
    std::vector<std::unique_ptr<DashTree>> children;
    QVector<Step> steps;
    QVector<Address> addresses;

    [[nodiscard]] bool has(const char *attribute) const;
    [[nodiscard]] QString value(const char *attribute) const; ///< empty without it
    /// None without it, or when it is no number from 0 to that one.
    [[nodiscard]] std::optional<qint64> number(const char *attribute, qint64 most) const;
    [[nodiscard]] const DashTree *child(const char *childName) const; ///< the first; null for none
    [[nodiscard]] std::vector<const DashTree *> all(const char *childName) const;

    /// The root of a document; null when it is not well-formed or not within the limits.
    /// @param hasLinks becomes true when an element is to be fetched from elsewhere (XLink)
    [[nodiscard]] static std::unique_ptr<DashTree> read(const QByteArray &document, bool &hasLinks);
};

#endif
