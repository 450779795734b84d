#ifndef HLSATTRIBUTES_H
#define HLSATTRIBUTES_H

#include <QByteArray>
#include <QString>

#include <optional>
#include <vector>

class HlsVariables;

/// The attribute list of a tag (RFC 8216, section 4.2). Read leniently: blanks around names and
/// values are dropped, a quoted string that is never closed ends with the line, and of two
/// attributes of a name the first counts. A value.
class HlsAttributes final
{
public:
    /// @param list what stands behind the tag's colon
    /// @param variables are put into quoted strings and hexadecimal numbers
    HlsAttributes(const QByteArray &list, HlsVariables &variables);

    /// Whether all variables could be put in.
    [[nodiscard]] bool isValid() const { return m_isValid; }

    [[nodiscard]] bool has(const char *name) const;

    /// A quoted string without its quotes, anything else as it stands; empty when there is none.
    [[nodiscard]] QByteArray bytes(const char *name) const;
    [[nodiscard]] QString text(const char *name) const;

    /// A decimal integer; 0 when there is none or it is of no use.
    [[nodiscard]] qint64 number(const char *name) const;

    /// Whether the value is YES.
    [[nodiscard]] bool isYes(const char *name) const;

    /// A decimal integer of nothing but digits, up to the largest of 63 bits.
    [[nodiscard]] static std::optional<qint64> integer(const QByteArray &digits);

private:
    struct Attribute
    {
        QByteArray name;
        QByteArray value;
    };

    void read(const QByteArray &list, HlsVariables &variables);
    [[nodiscard]] const Attribute *find(const char *name) const;

    std::vector<Attribute> m_attributes;
    bool m_isValid = true;
};

#endif
