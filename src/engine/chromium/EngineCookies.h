#ifndef ENGINECOOKIES_H
#define ENGINECOOKIES_H

#include <QByteArray>
#include <QJsonArray>
#include <QSet>

/// The cookies that an engine with a store of its own gets from this process's, and gives back.
/// Main thread.
class EngineCookies final
{
public:
    /// All that the process has, as Storage.setCookies wants them.
    [[nodiscard]] QJsonArray given();

    /// Takes over what Storage.getCookies has told, and what the page has removed; saves them.
    void takeBack(const QJsonArray &cookies);

private:
    QSet<QByteArray> m_given; ///< by name, domain and path
};

#endif
