#ifndef PAGEHEADERS_H
#define PAGEHEADERS_H

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QPair>
#include <QUrl>

#include <mutex>

/// How a page has asked servers: what stands in its requests' headers and a server may want to see
/// again when the run asks for the same address. Safe on any thread.
class PageHeaders final
{
public:
    using Headers = QList<QPair<QByteArray, QByteArray>>;

    /// @param page the referrer for addresses that the page has not asked for itself. A user name
    /// and password in it are given to its server for these, too, as an engine does.
    explicit PageHeaders(const QUrl &page);

    /// Keeps those of a request's headers that tell where it comes from.
    void note(const QUrl &url, const Headers &headers);

    /// What a request for the address shall have in its header.
    [[nodiscard]] Headers of(const QUrl &url) const;

private:
    [[nodiscard]] bool isPagesServer(const QUrl &url) const;

    const QUrl m_page;
    const QByteArray m_referrer; ///< empty for a page that is none of the web
    mutable std::mutex m_mutex; // guards what follows
    QHash<QUrl, Headers> m_headers;
    QByteArray m_userAgent; ///< the last one seen
};

#endif
