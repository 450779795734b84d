#ifndef MEMORYINPUT_H
#define MEMORYINPUT_H

#include <QByteArray>

#include <cstdint>
#include <deque>

struct AVIOContext;

/// Bytes in memory, from where the library reads: no name and no address is ever opened. It stands
/// where it is made, for the library keeps a pointer to it.
class MemoryInput final
{
public:
    enum class Kind {
        Whole, ///< all of it is there, and may be read in any order
        Growing ///< is read in order and forgotten; more may follow
    };

    explicit MemoryInput(Kind kind);
    ~MemoryInput();
    Q_DISABLE_COPY(MemoryInput)

    /// What the library is given; null without memory. It stays this object's.
    [[nodiscard]] AVIOContext *context() const { return m_context; }

    void append(const QByteArray &bytes);

    /// How much is there that has not been read.
    [[nodiscard]] qint64 remaining() const { return m_end - m_position; }

    /// Has the library read on after it has come to the end of what there was.
    void goOn();

private:
    static int read(void *opaque, uint8_t *buffer, int size);
    static int64_t seek(void *opaque, int64_t offset, int whence);
    int readSome(uint8_t *buffer, int size);
    void forgetRead();

    const Kind m_kind;
    AVIOContext *m_context = nullptr;
    std::deque<QByteArray> m_parts;
    qint64 m_begin = 0; // the position of the first part's first byte
    qint64 m_end = 0;
    qint64 m_position = 0;
};

#endif
