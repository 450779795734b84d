#ifndef CONTENTHASH_H
#define CONTENTHASH_H

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>

struct evp_md_ctx_st;

/// The SHA-256 sum of what comes piece by piece. By the system's cryptographic library, which uses
/// what the processor has for it: the toolkit's own is several times as slow. It keeps no state
/// beyond the process; whoever goes on with a file adds what is there already.
class ContentHash final
{
public:
    ContentHash();
    ~ContentHash();
    Q_DISABLE_COPY(ContentHash)

    /// Begins again with nothing.
    void reset();

    void add(const char *data, qint64 bytes);

    /// How much has been added since the beginning.
    [[nodiscard]] qint64 bytes() const { return m_bytes; }

    /// The sum of what has been added so far, as 32 bytes; more may follow. Empty if the library
    /// fails.
    [[nodiscard]] QByteArray sum() const;

    /// The sum of a file; empty when it cannot be read to its end.
    [[nodiscard]] static QByteArray ofFile(const QString &path);

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st *)> m_context;
    qint64 m_bytes = 0;
};

#endif
