#ifndef SELECTIONSITE_H
#define SELECTIONSITE_H

#include "RunOptions.h"
#include "SiteSettings.h"

#include <QString>

/// The one site whose pages ask an endpoint for their streams. Its answers are not understood, so
/// that a run of such a page ends without a video as soon as the endpoint has been asked.
class SelectionSite final
{
public:
    explicit SelectionSite(const QString &pageUrl);

    [[nodiscard]] bool isItsPage() const { return m_isItsPage; }

    /// Takes the page's request if it is the first to the endpoint. Returns whether it is.
    bool take(const QString &url);

    /// Asks the endpoint and waits for its answer in a nested event loop.
    static void ask(const QString &url, const RunOptions &options);

    /// Whether the page has asked the endpoint.
    [[nodiscard]] bool isAsked() const { return m_isAsked; }

private:
    const SiteSettings m_settings;
    const bool m_isItsPage;
    bool m_isAsked = false;
};

#endif
