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
    [[nodiscard]] QJsonArray given() const;

    /// What the engine has taken of them: it may not want all.
    /// @param cookies as Storage.getCookies tells them, before any page is loaded
    void noteTaken(const QJsonArray &cookies);

    /// Takes over what Storage.getCookies has told, and what the page has removed; saves them.
    void takeBack(const QJsonArray &cookies);

private:
    QSet<QByteArray> m_taken; ///< what the engine had when it was last asked, by CookieStore::keyOf
};

#endif
