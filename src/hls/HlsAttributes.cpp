#include "HlsAttributes.h"

#include "HlsVariables.h"

#include <algorithm>
#include <limits>

namespace {

bool isHexadecimal(const QByteArray &value)
{
    return value.startsWith("0x") || value.startsWith("0X");
}

} // namespace

HlsAttributes::HlsAttributes(const QByteArray &list, HlsVariables &variables)
{
    read(list, variables);
}

void HlsAttributes::read(const QByteArray &list, HlsVariables &variables)
{
    int from = 0;
    while (from < list.size()) {
        const int equals = list.indexOf('=', from);
        if (equals < 0)
            return;
        Attribute attribute;
        attribute.name = list.mid(from, equals - from).trimmed();
        int begin = equals + 1;
        while (begin < list.size() && list.at(begin) == ' ')
            ++begin;
        const bool isQuoted = begin < list.size() && list.at(begin) == '"';
        int end = isQuoted ? list.indexOf('"', begin + 1) : list.indexOf(',', begin);
        if (end < 0)
            end = list.size();
        attribute.value = isQuoted ? list.mid(begin + 1, end - begin - 1)
                                   : list.mid(begin, end - begin).trimmed();
        if ((isQuoted || isHexadecimal(attribute.value)) && !variables.substitute(attribute.value))
            m_isValid = false;
        m_attributes.push_back(attribute);
        const int comma = list.indexOf(',', end);
        from = comma < 0 ? list.size() : comma + 1;
    }
}

const HlsAttributes::Attribute *HlsAttributes::find(const char *name) const
{
    const auto found =
        std::find_if(m_attributes.cbegin(), m_attributes.cend(),
                     [name](const Attribute &attribute) { return attribute.name == name; });
    return found == m_attributes.cend() ? nullptr : &*found;
}

bool HlsAttributes::has(const char *name) const
{
    return find(name) != nullptr;
}

QByteArray HlsAttributes::bytes(const char *name) const
{
    const Attribute *const attribute = find(name);
    return attribute ? attribute->value : QByteArray();
}

QString HlsAttributes::text(const char *name) const
{
    return QString::fromUtf8(bytes(name));
}

qint64 HlsAttributes::number(const char *name) const
{
    return integer(bytes(name)).value_or(0);
}

bool HlsAttributes::isYes(const char *name) const
{
    return bytes(name) == "YES";
}

std::optional<qint64> HlsAttributes::integer(const QByteArray &digits)
{
    constexpr qint64 largest = std::numeric_limits<qint64>::max();
    if (digits.isEmpty())
        return std::nullopt;
    qint64 value = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9' || value > (largest - (c - '0')) / 10)
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}
