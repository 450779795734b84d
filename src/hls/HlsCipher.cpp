#include "HlsCipher.h"

#include <QtEndian>

#include <openssl/evp.h>

#include <memory>

namespace {

const unsigned char *bytesOf(const QByteArray &bytes)
{
    return reinterpret_cast<const unsigned char *>(bytes.constData());
}

} // namespace

QByteArray HlsCipher::ivOf(qint64 sequence)
{
    QByteArray iv(blockBytes, '\0');
    qToBigEndian(sequence, iv.data() + blockBytes - static_cast<int>(sizeof sequence));
    return iv;
}

bool HlsCipher::decrypt(QByteArray &body, const QByteArray &key, const QByteArray &iv)
{
    if (body.isEmpty() || body.size() % blockBytes != 0 || key.size() != keyBytes
        || iv.size() != blockBytes)
        return false;
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
        EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
    auto *const data = reinterpret_cast<unsigned char *>(body.data());
    int bytes = 0;
    int lastBytes = 0;
    const bool isDone = context
        && EVP_DecryptInit_ex(context.get(), EVP_aes_128_cbc(), nullptr, bytesOf(key), bytesOf(iv))
            == 1
        && EVP_DecryptUpdate(context.get(), data, &bytes, data, body.size()) == 1
        && EVP_DecryptFinal_ex(context.get(), data + bytes, &lastBytes) == 1;
    if (isDone)
        body.resize(bytes + lastBytes);
    return isDone;
}
