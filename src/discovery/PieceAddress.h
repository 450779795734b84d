#ifndef PIECEADDRESS_H
#define PIECEADDRESS_H

#include <QString>

/// Addresses by which players ask for a file in pieces, by numbers in the query instead of by a
/// range header. Pure functions.
class PieceAddress final
{
public:
    PieceAddress() = delete;

    /// The address of the whole file for that of a piece; other addresses stay as they are.
    [[nodiscard]] static QString wholeOf(const QString &address);
};

#endif
