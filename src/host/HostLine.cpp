#include "HostLine.h"

#include <QMessageLogger>

#include <algorithm>

namespace {

QString escapeOf(QChar c)
{
    switch (c.unicode()) {
    case '\n':
        return QStringLiteral("\\n");
    case '\r':
        return QStringLiteral("\\r");
    case '\t':
        return QStringLiteral("\\t");
    default:
        return QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
    }
}

QString inQuotes(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

bool HostLine::breaksLine(QChar c)
{
    const ushort code = c.unicode();
    return code < 0x20 || (code >= 0x7f && code <= 0x9f) || code == 0x2028 || code == 0x2029;
}

QString HostLine::onOneLine(const QString &text)
{
    if (std::none_of(text.cbegin(), text.cend(), breaksLine))
        return text;

    QString result;
    result.reserve(text.size() + 16);
    for (const QChar c : text) {
        if (breaksLine(c))
            result += escapeOf(c);
        else
            result += c;
    }
    return result;
}

HostLine &HostLine::text(const QString &piece)
{
    m_line += piece + QLatin1Char(' ');
    return *this;
}

HostLine &HostLine::quoted(const QString &piece)
{
    return text(inQuotes(piece));
}

HostLine &HostLine::list(const QStringList &items)
{
    QStringList quotedItems;
    quotedItems.reserve(items.size());
    for (const QString &item : items)
        quotedItems += inQuotes(item);
    return text(QLatin1Char('(') + quotedItems.join(QLatin1String(", ")) + QLatin1Char(')'));
}

QString HostLine::toString() const
{
    return onOneLine(m_line);
}

void HostLine::send() const
{
    sendPlain(m_line);
}

void HostLine::sendText(const QString &text)
{
    HostLine().text(text).send();
}

void HostLine::sendQuoted(const QString &text)
{
    HostLine().quoted(text).send();
}

void HostLine::sendPlain(const QString &line)
{
    QMessageLogger().debug("%s", onOneLine(line).toUtf8().constData());
}
