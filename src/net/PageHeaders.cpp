#include "PageHeaders.h"

#include "WebAddress.h"

namespace {

constexpr int maxAddresses = 20000;

/// The address as a referrer (RFC 9110, section 10.1.3).
QByteArray referrer(const QUrl &url)
{
    if (!WebAddress::isWeb(url))
        return {};
    return url.toEncoded(QUrl::RemoveUserInfo | QUrl::RemoveFragment);
}

} // namespace

PageHeaders::PageHeaders(const QUrl &page)
    : m_page(page)
    , m_referrer(referrer(page))
{
}

bool PageHeaders::isPagesServer(const QUrl &url) const
{
    return url.scheme() == m_page.scheme() && url.host() == m_page.host()
        && url.port(-1) == m_page.port(-1);
}

void PageHeaders::note(const QUrl &url, const Headers &headers)
{
    const std::lock_guard locker(m_mutex);
    Headers kept;
    for (const auto &header : headers) {
        const QByteArray name = header.first.toLower();
        if (name == "referer" || name == "origin")
            kept += header;
        else if (name == "user-agent")
            m_userAgent = header.second;
    }
    if (m_headers.size() < maxAddresses || m_headers.contains(url))
        m_headers.insert(url, kept);
}

PageHeaders::Headers PageHeaders::of(const QUrl &url) const
{
    const std::lock_guard locker(m_mutex);
    Headers headers;
    const auto known = m_headers.constFind(url);
    if (known != m_headers.constEnd())
        headers = *known;
    else if (!m_referrer.isEmpty())
        headers += qMakePair(QByteArrayLiteral("Referer"), m_referrer);
    if (!m_page.userName().isEmpty() && url.userInfo().isEmpty() && isPagesServer(url)) {
        const QByteArray pair = m_page.userName(QUrl::FullyDecoded).toUtf8() + ':'
            + m_page.password(QUrl::FullyDecoded).toUtf8();
        headers += qMakePair(QByteArrayLiteral("Authorization"), "Basic " + pair.toBase64());
    }
    if (!m_userAgent.isEmpty())
        headers += qMakePair(QByteArrayLiteral("User-Agent"), m_userAgent);
    return headers;
}
