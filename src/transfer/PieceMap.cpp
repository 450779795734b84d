#include "PieceMap.h"

PieceMap::PieceMap(qint64 length)
{
    insert({0, length});
}

void PieceMap::insert(const Piece &piece)
{
    if (piece.bytes() <= 0)
        return;
    m_free.emplace(piece.first, piece.end);
    m_freeBytes += piece.bytes();
}

void PieceMap::claim(const Piece &piece)
{
    if (piece.bytes() <= 0)
        return;
    auto next = m_free.upper_bound(piece.first);
    if (next != m_free.begin() && std::prev(next)->second > piece.first)
        --next;
    while (next != m_free.end() && next->first < piece.end) {
        const Piece free{next->first, next->second};
        next = m_free.erase(next);
        m_freeBytes -= free.bytes();
        insert({free.first, qMin(free.end, piece.first)});
        insert({qMax(free.first, piece.end), free.end});
    }
}

void PieceMap::release(const Piece &piece)
{
    claim(piece); // some of it may be free
    Piece whole = piece;
    if (whole.bytes() <= 0)
        return;
    auto next = m_free.lower_bound(piece.first);
    if (next != m_free.end() && next->first == piece.end) {
        whole.end = next->second;
        m_freeBytes -= next->second - next->first;
        next = m_free.erase(next);
    }
    if (next != m_free.begin() && std::prev(next)->second == piece.first) {
        --next;
        whole.first = next->first;
        m_freeBytes -= next->second - next->first;
        m_free.erase(next);
    }
    insert(whole);
}

PieceMap::Piece PieceMap::firstFree(qint64 maxBytes) const
{
    if (m_free.empty())
        return {};
    const auto &[first, end] = *m_free.begin();
    return {first, end - first > maxBytes ? first + maxBytes : end};
}
