#include "PieceAddress.h"

#include <QStringList>
#include <QVector>

#include <algorithm>

namespace {

bool isNumber(const QStringRef &text)
{
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar c) {
        return c >= QLatin1Char('0') && c <= QLatin1Char('9');
    });
}

/// As in a range header: "first-last" or "first-".
bool isRange(const QStringRef &text)
{
    const int dash = text.indexOf(QLatin1Char('-'));
    return dash > 0 && isNumber(text.left(dash))
        && (dash + 1 == text.size() || isNumber(text.mid(dash + 1)));
}

bool namesPiece(const QStringRef &parameter)
{
    const int sign = parameter.indexOf(QLatin1Char('='));
    if (sign <= 0)
        return false;
    const QStringRef name = parameter.left(sign);
    const QStringRef value = parameter.mid(sign + 1);
    for (const char *const known : {"range", "byterange", "bytes"}) {
        if (name.compare(QLatin1String(known), Qt::CaseInsensitive) == 0)
            return isRange(value);
    }
    for (const char *const known : {"bytestart", "byteend"}) {
        if (name.compare(QLatin1String(known), Qt::CaseInsensitive) == 0)
            return isNumber(value);
    }
    return false;
}

} // namespace

QString PieceAddress::wholeOf(const QString &address)
{
    const int mark = address.indexOf(QLatin1Char('?'));
    const int hash = address.indexOf(QLatin1Char('#'));
    if (mark < 0 || (hash >= 0 && hash < mark))
        return address;
    const QStringRef query = address.midRef(mark + 1, hash < 0 ? -1 : hash - mark - 1);
    QStringList kept;
    const QVector<QStringRef> parameters = query.split(QLatin1Char('&'));
    for (const QStringRef &parameter : parameters) {
        if (!namesPiece(parameter))
            kept += parameter.toString();
    }
    if (kept.size() == parameters.size())
        return address;
    const QString rest = hash < 0 ? QString() : address.mid(hash);
    return address.left(mark)
        + (kept.isEmpty() ? QString() : QLatin1Char('?') + kept.join(QLatin1Char('&'))) + rest;
}
