#include "RunOptions.h"

#include "QxDir.h"
#include "SettingsFile.h"
#include "StallWatch.h"

#include <QDate>

RunOptions RunOptions::ofCommandLine()
{
    const auto *const preference = CVideoPreference::instance();
    RunOptions options;
    options.pageUrl = preference->GetPageUrl();
    options.pageId = preference->GetPageUrlMD5();
    options.timeoutS = preference->GetTimeOut();
    options.stallS = preference->GetStall();
    options.memoryBytes = preference->GetMemoryLimit();
    options.format = preference->GetVideoFormat();
    options.quality = preference->GetQuality();
    options.resumes = preference->GetResume();
    options.expectedBytes = options.resumes ? qMax(qint64(0), preference->GetTotalSize()) : 0;
    options.paths = preference->GetOutputPaths();
    options.proxy = preference->GetProxy();
    options.isProxyNamed =
        !preference->GetOptionString(QStringLiteral("proxy"), QString()).isEmpty();
    options.wantsThumb = preference->GetThumb();
    options.wantsBeginningOnly = preference->GetPartialDown();
    options.usesSmartName = preference->GetSmartName();
    options.keepsImages = preference->GetKeepImage();
    options.followsManifests = preference->GetStreams();
    options.language = preference->GetLanguage();
    options.connections = preference->GetConnections();
    options.fileConnections = preference->GetFileConnections();
    options.isLogged = preference->GetLog();
    options.isShown = preference->GetShow();
    options.isConfined = !preference->GetNoSandbox();
    options.followsStreams = preference->GetSupportF4f();
    options.engine = preference->GetEngine();
    options.mayPress = !preference->GetNoClick();
    options.chromiumPath =
        SettingsFile().value(QStringLiteral("engine/chromium"),
                             QStringLiteral("/usr/lib/chromium/chromium-headless-shell"));
    if (options.engine != CVideoPreference::Engine::Webkit)
        options.pageHeaders = std::make_shared<PageHeaders>(QUrl(options.pageUrl));
    options.tellsEvents = preference->GetEvents();
    options.isStrict = preference->GetStrict();
    options.continues = preference->GetContinue();
    options.retries = preference->GetRetries();
    options.isEager = preference->GetEager();
    return options;
}

NetSettings RunOptions::netSettings() const
{
    NetSettings settings;
    if (proxy.type != QNetworkProxy::NoProxy && !proxy.host.isEmpty())
        settings.proxy = proxy.toNetworkProxy();
    settings.stallMs = StallWatch::limitOf(stallS);
    settings.pageHeaders = pageHeaders;
    return settings;
}

QString RunOptions::csvPath() const
{
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"));
    return QxDir::MakeDir(paths.folder() + QLatin1String("/logs")) + QLatin1Char('/') + today
        + QLatin1String(".csv");
}
