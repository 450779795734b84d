#ifndef STREAMADDRESS_H
#define STREAMADDRESS_H

#include <QString>

/// Addresses of streams that come in segments. Pure functions.
class StreamAddress final
{
public:
    StreamAddress() = delete;

    /// Whether the address names a stream's manifest or fragment.
    [[nodiscard]] static bool isOne(const QString &url);

    /// The manifest's address for a fragment's; other addresses stay as they are.
    [[nodiscard]] static QString manifestOf(const QString &url);
};

#endif
