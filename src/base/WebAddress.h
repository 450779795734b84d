#ifndef WEBADDRESS_H
#define WEBADDRESS_H

#include <QString>
#include <QUrl>

class QNetworkReply;

/// What may be fetched, and how addresses are written down. Stateless; any thread.
class WebAddress final
{
public:
    WebAddress() = delete;

    /// Whether the address lies on the web: http or https, with a host. Nothing else is ever
    /// fetched for media, whoever names it.
    [[nodiscard]] static bool isWeb(const QUrl &url);

    /// Where a reply redirects to, made absolute and whatever its scheme; empty when it does not.
    [[nodiscard]] static QUrl redirectTarget(const QNetworkReply &reply);

    /// The text without the user names and passwords of the addresses in it, in one pass. For an
    /// address that is the whole text just as well: what it keeps, it keeps to the byte, and it
    /// cleans what does not parse as an address, too.
    [[nodiscard]] static QString withoutCredentials(const QString &text);
};

#endif
