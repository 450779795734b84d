#include "XGzip.h"

#include <QNetworkReply>

#include <array>
#include <limits>

#include <zlib.h>

namespace {

constexpr int gzipOnly = 16; // added to the window's size, says zlib
constexpr std::size_t pieceBytes = 64 * 1024;

} // namespace

struct XGzip::Stream
{
    z_stream state{};
    std::array<char, pieceBytes> piece{};
    bool isUsable = ::inflateInit2(&state, MAX_WBITS + gzipOnly) == Z_OK;

    Stream() = default;
    ~Stream() { ::inflateEnd(&state); }
    Q_DISABLE_COPY(Stream)

    /// Unpacks at most one piece. Returns zlib's result and how many bytes it made.
    int unpackPiece(qint64 &made)
    {
        state.next_out = reinterpret_cast<Bytef *>(piece.data());
        state.avail_out = pieceBytes;
        const int result = ::inflate(&state, Z_NO_FLUSH);
        made = static_cast<qint64>(pieceBytes - state.avail_out);
        return result;
    }
};

XGzip::XGzip()
    : m_stream(std::make_unique<Stream>())
{
}

XGzip::~XGzip() = default;

bool XGzip::isIn(const QNetworkReply &reply)
{
    return reply.rawHeader("Content-Encoding").trimmed().toLower() == "x-gzip";
}

bool XGzip::unpack(const char *data, qint64 bytes, const Take &take)
{
    if (!m_stream->isUsable || bytes > std::numeric_limits<int>::max())
        return false;
    z_stream &state = m_stream->state;
    state.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data)); // zlib leaves it as it is
    state.avail_in = static_cast<uInt>(bytes);
    while (!m_isWhole) { // what follows the end is of no use
        qint64 made = 0;
        const int result = m_stream->unpackPiece(made);
        m_isWhole = result == Z_STREAM_END;
        const bool isSound = m_isWhole || result == Z_OK || result == Z_BUF_ERROR;
        if (!isSound || (made > 0 && !take(m_stream->piece.data(), made))) {
            m_stream->isUsable = false;
            return false;
        }
        if (state.avail_in == 0 && state.avail_out > 0)
            break; // all that has come is unpacked
    }
    return true;
}

bool XGzip::isWhole() const
{
    return m_isWhole && m_stream->isUsable;
}
