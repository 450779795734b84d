#ifndef PAGELIST_H
#define PAGELIST_H

#include <QSet>
#include <QString>
#include <QStringList>

class QIODevice;

/// The addresses of the pages that are wanted, each once, in their order.
class PageList final
{
public:
    /// Adds an address; "https://" is put before one without a scheme. False, with reason(), when
    /// it is none of a web page.
    [[nodiscard]] bool add(const QString &address);

    /// Adds those of a list: one a line, in UTF-8; empty lines and those that begin with "#" are
    /// passed over, and so is what follows white space and "#". False, with reason(), at the first
    /// line that is no address and when the list cannot be read.
    [[nodiscard]] bool addList(QIODevice &list);

    [[nodiscard]] const QStringList &addresses() const { return m_addresses; }
    [[nodiscard]] QString reason() const { return m_reason; }

private:
    QStringList m_addresses;
    QSet<QString> m_known;
    QString m_reason;
};

#endif
