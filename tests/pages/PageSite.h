#ifndef PAGESITE_H
#define PAGESITE_H

#include "ScriptedServer.h"

#include <QByteArray>
#include <QString>

/// A site of today on two loopback hosts, which are two sites to an engine: the pages of the folder
/// "site", the players that scripts/fetch-players.sh fetches, media, and what only servers can do.
/// Both hosts serve all of it. In texts, {{this}} and {{other}} stand for the origins.
///
///     /media/...               the media, with byte ranges
///     /watch/NAME              a video by no more than its type, with byte ranges
///     /pieces/NAME             the same; parts of it by numbers in the query
///     /chunked/NAME            the same without ranges or a length
///     /of-the-page/FILE        for who comes from a page of the site
///     /of-the-visitor/FILE     for who has the cookie that the page's script sets
///     /of-the-session/FILE     for who has the cookie that /session sets, which scripts do not see
///     /sign?film=NAME          an address of /signed/NAME.mp4, which works for a minute
///     /players/...             the players
class PageSite final
{
public:
    PageSite();
    Q_DISABLE_COPY(PageSite)

    /// The address of a page, by its name without extension.
    [[nodiscard]] QString page(const QByteArray &name) const;

    /// An address as pages write it: "/path" on the host of the page, "//path" on the other one.
    [[nodiscard]] QString address(const QByteArray &target) const;

    /// The text of a page's title element.
    [[nodiscard]] static QByteArray titleOf(const QByteArray &page);

    /// A file of the media; fails the program when there is none.
    [[nodiscard]] static QByteArray media(const QString &name);

    /// The host of the page, for more answers than those above.
    [[nodiscard]] ScriptedServer &host();
    [[nodiscard]] ScriptedServer &otherHost();

private:
    static void serveOn(ScriptedServer &server, const ScriptedServer &other);

    ScriptedServer m_host;
    ScriptedServer m_otherHost;
};

#endif
