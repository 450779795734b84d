#include "SelectionSite.h"

#include "httpdownloader.h"
#include "utils.h"

SelectionSite::SelectionSite(const QString &pageUrl)
    : m_settings(SiteSettings::load())
    , m_isItsPage(!Utils::RegexString(pageUrl, m_settings.huluPagePattern).isEmpty())
{
}

bool SelectionSite::take(const QString &url)
{
    const QString endpoint = m_settings.huluSelectionEndpoint;
    if (m_isAsked || endpoint.isEmpty() || !url.contains(endpoint))
        return false;
    m_isAsked = true;
    return true;
}

void SelectionSite::ask(const QString &url, const RunOptions &options)
{
    HttpDownloader downloader(options);
    downloader.setDownloadInfo(QString(), url, 0, -1, 0, false);
    downloader.download();
    Utils::WaitFor(&downloader, SIGNAL(downFinished(int)));
}
