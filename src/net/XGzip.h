#ifndef XGZIP_H
#define XGZIP_H

#include <QByteArray>

#include <functional>
#include <memory>

class QNetworkReply;

/// Unpacks a body that its server calls "x-gzip". That is the old name of gzip; the toolkit unpacks
/// under the new one only and passes this on as it is.
class XGzip final
{
public:
    /// Takes a piece of what is unpacked; returns whether to go on.
    using Take = std::function<bool(const char *data, qint64 bytes)>;

    XGzip();
    ~XGzip();
    XGzip(const XGzip &) = delete;
    XGzip &operator=(const XGzip &) = delete;

    /// Whether the body of a reply, whose header has come, is of that kind.
    [[nodiscard]] static bool isIn(const QNetworkReply &reply);

    /// Unpacks what comes next, in pieces of bounded size. Returns false when that is no gzip, or
    /// when a piece is not taken; nothing more is unpacked then.
    [[nodiscard]] bool unpack(const char *data, qint64 bytes, const Take &take);

    /// Whether the end of the packed data has come, so that nothing of it is missing.
    [[nodiscard]] bool isWhole() const;

private:
    struct Stream;

    std::unique_ptr<Stream> m_stream;
    bool m_isWhole = false;
};

#endif
