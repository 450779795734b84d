#ifndef HOSTQUEUE_H
#define HOSTQUEUE_H

#include <QHash>
#include <QString>
#include <QStringList>

#include <deque>
#include <optional>
#include <set>
#include <utility>

/// Pages that wait for their turn, so that no host is asked for more than a few at once. Every step
/// takes no longer for many pages than for few.
class HostQueue final
{
public:
    HostQueue(const QStringList &addresses, int perHost);

    /// The first page whose host has room; it counts as one of its host's until release(). Nothing
    /// when there is none, or none that may begin.
    [[nodiscard]] std::optional<int> take();

    /// That page has ended.
    void release(int page);

    /// The pages that have not been taken, in their order; none is left.
    [[nodiscard]] std::vector<int> takeRest();

    [[nodiscard]] bool isEmpty() const { return m_waiting == 0; }
    [[nodiscard]] QString addressOf(int page) const { return m_addresses.at(page); }

private:
    struct Host
    {
        std::deque<int> pages;
        int atWork = 0;
    };
    [[nodiscard]] static QString hostOf(const QString &address);

    const QStringList m_addresses;
    const int m_perHost;
    int m_waiting;
    QHash<QString, Host> m_hosts;
    /// Hosts that have room and pages, by the first of these.
    std::set<std::pair<int, QString>> m_ready;
};

#endif
