#include "DashTemplate.h"

#include <optional>

namespace {

/// The width of a format such as "%05d"; 1 without one, none when it makes no sense.
std::optional<int> widthOf(const QStringRef &format)
{
    if (format.isEmpty())
        return 1;
    if (format.size() < 4 || !format.startsWith(QLatin1String("%0"))
        || !format.endsWith(QLatin1Char('d')))
        return std::nullopt;
    const QStringRef digits = format.mid(2, format.size() - 3);
    int width = 0;
    for (const QChar digit : digits) {
        if (digit < QLatin1Char('0') || digit > QLatin1Char('9'))
            return std::nullopt;
        width = width * 10 + digit.digitValue();
        if (width > DashTemplate::maxWidth)
            return std::nullopt;
    }
    return width;
}

/// What an identifier, without its signs, stands for; none when it is not known.
std::optional<QString> valueOf(const QStringRef &identifier, const DashTemplate::Values &values)
{
    if (identifier.isEmpty())
        return QStringLiteral("$");
    if (identifier == QLatin1String("RepresentationID"))
        return values.representation;
    const int mark = identifier.indexOf(QLatin1Char('%'));
    const QStringRef name = mark < 0 ? identifier : identifier.left(mark);
    const std::optional<int> width = widthOf(mark < 0 ? QStringRef() : identifier.mid(mark));
    if (!width)
        return std::nullopt;
    qint64 number = 0;
    if (name == QLatin1String("Number"))
        number = values.number;
    else if (name == QLatin1String("Time"))
        number = values.time;
    else if (name == QLatin1String("Bandwidth"))
        number = values.bandwidth;
    else
        return std::nullopt;
    return QString::number(number).rightJustified(*width, QLatin1Char('0'));
}

std::optional<QString> tryToExpand(const QString &text, const DashTemplate::Values &values)
{
    QString expanded;
    int position = 0;
    for (;;) {
        const int begin = text.indexOf(QLatin1Char('$'), position);
        if (begin < 0)
            return expanded + text.midRef(position);
        const int end = text.indexOf(QLatin1Char('$'), begin + 1);
        if (end < 0)
            return std::nullopt;
        const std::optional<QString> value =
            valueOf(text.midRef(begin + 1, end - begin - 1), values);
        if (!value)
            return std::nullopt;
        expanded += text.midRef(position, begin - position);
        expanded += *value;
        position = end + 1;
    }
}

} // namespace

bool DashTemplate::isValid(const QString &text)
{
    return tryToExpand(text, Values()).has_value();
}

QString DashTemplate::expand(const QString &text, const Values &values)
{
    return tryToExpand(text, values).value_or(QString());
}
