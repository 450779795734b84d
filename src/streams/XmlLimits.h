#ifndef XMLLIMITS_H
#define XMLLIMITS_H

#include <QString>

/// What XML text must keep to before it is given to the query engine, which bounds nothing itself.
/// Stateless; any thread.
class XmlLimits final
{
public:
    XmlLimits() = delete;

    static constexpr int maxDepth = 64; ///< the engine loses nodes that lie deeper than 127
    /// Nodes of all kinds, attributes included: the engine takes more than 100 bytes for each, and
    /// a query walks them all.
    static constexpr int maxNodes = 1000000;
    static constexpr int maxAttributes = 256; ///< of a tag: the reader compares each with each
    /// Different local names. The engine numbers them with 12 bits and takes one for another when
    /// they run out; some are its own.
    static constexpr int maxNames = 2000;
    /// Different namespaces, different prefixes, and declarations that are in force at a place. The
    /// engine numbers the first two with 9 bits and crashes when they run out; the reader tries all
    /// of the third for a name.
    static constexpr int maxNamespaces = 256;

    /// Whether the text is well-formed and within the limits. It may have a DOCTYPE that only names
    /// the root: entities and subsets of either kind are refused unread. What is refused though it
    /// may be XML is told by a warning. The cost is proportional to the text.
    [[nodiscard]] static bool accepts(const QString &xml);
};

#endif
