#include "ContentHash.h"

#include <QFile>

#include <openssl/evp.h>

namespace {

constexpr qint64 chunkBytes = 1 << 20;

} // namespace

ContentHash::ContentHash()
    : m_context(EVP_MD_CTX_new(), EVP_MD_CTX_free)
{
    reset();
}

ContentHash::~ContentHash() = default;

void ContentHash::reset()
{
    m_bytes = 0;
    if (m_context && EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1)
        m_context.reset();
}

void ContentHash::add(const char *data, qint64 bytes)
{
    if (m_context && EVP_DigestUpdate(m_context.get(), data, static_cast<size_t>(bytes)) != 1)
        m_context.reset();
    m_bytes += bytes;
}

QByteArray ContentHash::sum() const
{
    const std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st *)> copy(EVP_MD_CTX_new(),
                                                                         EVP_MD_CTX_free);
    QByteArray digest(EVP_MAX_MD_SIZE, Qt::Uninitialized);
    unsigned size = 0;
    const bool isMade = m_context && copy && EVP_MD_CTX_copy_ex(copy.get(), m_context.get()) == 1
        && EVP_DigestFinal_ex(copy.get(), reinterpret_cast<unsigned char *>(digest.data()), &size)
            == 1;
    return isMade ? digest.left(static_cast<int>(size)) : QByteArray();
}

QByteArray ContentHash::ofFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {};
    ContentHash hash;
    QByteArray chunk(chunkBytes, Qt::Uninitialized);
    for (;;) {
        const qint64 count = file.read(chunk.data(), chunk.size());
        if (count < 0)
            return {};
        if (count == 0)
            return hash.sum();
        hash.add(chunk.constData(), count);
    }
}
