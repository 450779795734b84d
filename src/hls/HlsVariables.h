#ifndef HLSVARIABLES_H
#define HLSVARIABLES_H

#include <QByteArray>
#include <QHash>

/// The variables of a playlist (draft-pantos-hls-rfc8216bis, section 4.3), as EXT-X-DEFINE names
/// them. What they hold and what comes of them is bounded: a value may refer to others, and be
/// referred to often. A value, safe to copy.
class HlsVariables final
{
public:
    /// Returns false when there is one of that name already, the name is none, or there would be
    /// too much in all of them.
    [[nodiscard]] bool define(const QByteArray &name, const QByteArray &value);

    /// Whether there is one of that name.
    [[nodiscard]] bool has(const QByteArray &name) const { return m_values.contains(name); }

    /// Its value; empty when there is none.
    [[nodiscard]] QByteArray value(const QByteArray &name) const { return m_values.value(name); }

    /// Puts values in the place of the references in a text, "{$name}". Returns false when one of
    /// them is not defined, or the text, or all texts so far, would grow too long.
    [[nodiscard]] bool substitute(QByteArray &text);

private:
    QHash<QByteArray, QByteArray> m_values;
    qint64 m_valueBytes = 0;
    qint64 m_substitutedBytes = 0;
};

#endif
