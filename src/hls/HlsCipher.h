#ifndef HLSCIPHER_H
#define HLSCIPHER_H

#include <QByteArray>
#include <QtGlobal>

/// How segments are encrypted as a whole (RFC 8216, section 4.3.2.4): AES-128 in CBC mode with
/// padding by PKCS7. Pure functions, safe on any thread.
class HlsCipher final
{
public:
    static constexpr int keyBytes = 16;
    static constexpr int blockBytes = 16;

    HlsCipher() = delete;

    /// The IV of a segment whose key names none: its media sequence number, big-endian.
    [[nodiscard]] static QByteArray ivOf(qint64 sequence);

    /// Decrypts in place. Returns false when the body is not whole blocks, or its padding is wrong,
    /// which nearly every wrong key brings about; the body is then of no use.
    /// @param key    @param iv 16 bytes each
    [[nodiscard]] static bool decrypt(QByteArray &body, const QByteArray &key,
                                      const QByteArray &iv);
};

#endif
