#ifndef TLSTRUST_H
#define TLSTRUST_H

class QNetworkReply;
class QUrl;

/// Whom the run takes for who he says he is, over TLS, and what the log tells when it does not.
/// What is refused stays refused.
class TlsTrust final
{
public:
    TlsTrust() = delete;

    /// Believes the certificates that SSL_CERT_FILE and SSL_CERT_DIR name (a file of several, and
    /// folders with colons between them), which the toolkit does not look at by itself. Those of
    /// the folders replace the system's; those of the file are added. For requests that are made
    /// afterwards.
    static void useEnvironment();

    /// useEnvironment(), once, and only if the address is asked for over TLS: reading all
    /// certificates takes longer than starting the engine. To be called before each request whose
    /// redirects are requests of their own. Safe on any thread.
    static void prepareFor(const QUrl &url);

    /// Writes a warning when the reply, which has just been asked for, ends for want of trust:
    /// which host, which certificate (name and issuer) and why. On the reply's thread.
    static void reportRefusal(QNetworkReply *reply);
};

#endif
