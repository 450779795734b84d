#include "MemoryInput.h"

#include "Libav.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr int bufferBytes = 32 * 1024;

} // namespace

MemoryInput::MemoryInput(Kind kind)
    : m_kind(kind)
{
    auto *const buffer = static_cast<unsigned char *>(av_malloc(bufferBytes));
    if (!buffer)
        return;
    m_context = avio_alloc_context(buffer, bufferBytes, 0, this, &MemoryInput::read, nullptr,
                                   kind == Kind::Whole ? &MemoryInput::seek : nullptr);
    if (!m_context)
        av_free(buffer);
}

MemoryInput::~MemoryInput()
{
    if (m_context)
        av_freep(&m_context->buffer); // may be another one by now
    avio_context_free(&m_context);
}

void MemoryInput::append(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return;
    m_parts.push_back(bytes);
    m_end += bytes.size();
}

void MemoryInput::goOn()
{
    m_context->eof_reached = 0;
    m_context->error = 0;
}

int MemoryInput::read(void *opaque, uint8_t *buffer, int size)
{
    return static_cast<MemoryInput *>(opaque)->readSome(buffer, size);
}

int MemoryInput::readSome(uint8_t *buffer, int size)
{
    qint64 begin = m_begin;
    for (const QByteArray &part : m_parts) {
        if (m_position < begin + part.size()) {
            const qint64 offset = m_position - begin;
            const auto count = static_cast<int>(std::min<qint64>(size, part.size() - offset));
            std::memcpy(buffer, part.constData() + offset, static_cast<std::size_t>(count));
            m_position += count;
            if (m_kind == Kind::Growing)
                forgetRead();
            return count;
        }
        begin += part.size();
    }
    return AVERROR_EOF;
}

void MemoryInput::forgetRead()
{
    while (!m_parts.empty() && m_begin + m_parts.front().size() <= m_position) {
        m_begin += m_parts.front().size();
        m_parts.pop_front();
    }
}

int64_t MemoryInput::seek(void *opaque, int64_t offset, int whence)
{
    auto *const self = static_cast<MemoryInput *>(opaque);
    constexpr int force = AVSEEK_FORCE;
    switch (whence & ~force) {
    case AVSEEK_SIZE:
        return self->m_end;
    case SEEK_SET:
        break;
    case SEEK_CUR:
        offset += self->m_position;
        break;
    case SEEK_END:
        offset += self->m_end;
        break;
    default:
        return AVERROR(EINVAL);
    }
    if (offset < 0 || offset > self->m_end)
        return AVERROR(EINVAL);
    self->m_position = offset;
    return offset;
}
