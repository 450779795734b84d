#include "ContentRange.h"

#include <QRegularExpression>

ContentRange ContentRange::of(const QByteArray &header)
{
    static const QRegularExpression pattern(
        QStringLiteral("^\\s*\\w+\\s+(\\d+)(?:-(\\d+))?(?:/(\\d+))?"));
    const auto match = pattern.match(QString::fromLatin1(header));
    const auto number = [&match](int group) {
        bool isNumber = false;
        const qint64 value = match.captured(group).toLongLong(&isNumber);
        return isNumber ? value : -1;
    };
    return {number(1), number(2), number(3)};
}
