#ifndef XPATHDOCUMENT_H
#define XPATHDOCUMENT_H

#include <QString>
#include <QStringList>

#include <memory>

/// XML text, parsed once, that any number of XPath queries can be asked of.
///
/// Queries reach this document only: they cannot read files or addresses. Text that XmlLimits does
/// not accept answers every query with nothing. Not shared between threads.
class XPathDocument final
{
public:
    explicit XPathDocument(const QString &xml);
    ~XPathDocument();
    Q_DISABLE_COPY(XPathDocument)

    /// Whether the text can be queried at all.
    [[nodiscard]] bool isUsable() const;

    /// The results of a query over the document; empty for no match or an invalid query.
    [[nodiscard]] QStringList strings(const QString &query);

    /// Finds nodes for stringsAt(), in document order, and returns how many there are.
    int select(const QString &query);

    /// The results of a query relative to the n-th node, from 0, of the last select(). The cost
    /// depends on that node only, not on the size of the document.
    [[nodiscard]] QStringList stringsAt(int n, const QString &query);

private:
    class Engine;
    std::unique_ptr<Engine> m_engine; // null: not usable
};

#endif
