#ifndef COOKIEJAR_H
#define COOKIEJAR_H

#include "MemoryCookieJar.h"

/// A cookie jar over the process-wide CookieStore: every jar of a process holds the same cookies,
/// so a download carries the session of its page. A jar belongs to one thread; jars of different
/// threads may be used at the same time.
class CookieJar : public MemoryCookieJar
{
    Q_OBJECT

public:
    /// Loads the stored cookies.
    explicit CookieJar(QObject *parent = nullptr);

    bool insertCookie(const QNetworkCookie &cookie) override;
    bool deleteCookie(const QNetworkCookie &cookie) override;

protected:
    [[nodiscard]] QList<QNetworkCookie> cookies() const override;
};

#endif
