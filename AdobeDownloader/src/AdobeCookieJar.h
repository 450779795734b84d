#ifndef ADOBECOOKIEJAR_H
#define ADOBECOOKIEJAR_H

#include "CookieJar.h"

/// A cookie jar that can also be listed, saved and loaded as a whole.
class CAdobeCookieJar final : public CookieJar
{
    Q_OBJECT

public:
    /// Loads the stored cookies.
    explicit CAdobeCookieJar(QObject *parent = nullptr);

    /// All cookies, in no particular order.
    [[nodiscard]] QList<QNetworkCookie> mycookies() const;

    /// Writes changed cookies to the file. Returns false when it cannot be written.
    bool save();

    /// Takes over cookies that other processes saved. Returns false when the file cannot be read.
    bool load();
};

#endif
