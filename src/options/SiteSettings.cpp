#include "SiteSettings.h"

#include "SettingsFile.h"

namespace {

const QLatin1String defaultHuluPagePattern(R"(https?://(?:www\.)?hulu\.com/[^/]+/([0-9]+))");

} // namespace

SiteSettings SiteSettings::load()
{
    const SettingsFile file;
    return {file.value(QStringLiteral("hulu/pagePattern"), defaultHuluPagePattern),
            file.value(QStringLiteral("hulu/selectionEndpoint"), QString())};
}
