#include "HlsVariables.h"

#include "HlsLimits.h"

#include <algorithm>

namespace {

bool isNameCharacter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-'
        || c == '_';
}

/// Where a reference that begins at `from` ends, on its brace; -1 when there is none.
int referenceEnd(const QByteArray &text, int from)
{
    int end = from + 2;
    while (end < text.size() && isNameCharacter(text.at(end)))
        ++end;
    return end > from + 2 && end < text.size() && text.at(end) == '}' ? end : -1;
}

} // namespace

bool HlsVariables::define(const QByteArray &name, const QByteArray &value)
{
    if (name.isEmpty() || !std::all_of(name.cbegin(), name.cend(), isNameCharacter) || has(name))
        return false;
    m_valueBytes += name.size() + value.size();
    if (m_valueBytes > HlsLimits::variableBytes)
        return false;
    m_values.insert(name, value);
    return true;
}

bool HlsVariables::substitute(QByteArray &text)
{
    int reference = text.indexOf("{$");
    if (reference < 0)
        return true;
    QByteArray result;
    int copied = 0;
    while (reference >= 0) {
        const int end = referenceEnd(text, reference);
        if (end < 0) {
            reference = text.indexOf("{$", reference + 2);
            continue;
        }
        const auto found = m_values.constFind(text.mid(reference + 2, end - reference - 2));
        if (found == m_values.cend())
            return false;
        result.append(text.constData() + copied, reference - copied).append(*found);
        m_substitutedBytes += found->size();
        if (result.size() > HlsLimits::lineBytes
            || m_substitutedBytes > HlsLimits::substitutedBytes)
            return false;
        copied = end + 1;
        reference = text.indexOf("{$", copied);
    }
    result.append(text.constData() + copied, text.size() - copied);
    text = result;
    return text.size() <= HlsLimits::lineBytes;
}
