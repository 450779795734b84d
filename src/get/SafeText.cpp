#include "SafeText.h"

#include <QTextBoundaryFinder>
#include <QVector>

namespace {

/// Joins letters and pictures to one, and is no danger.
constexpr uint zeroWidthNonJoiner = 0x200c;
constexpr uint zeroWidthJoiner = 0x200d;

enum class Sort { Shown, Blank, LeftOut };

Sort sortOf(uint character)
{
    if (character == zeroWidthJoiner || character == zeroWidthNonJoiner)
        return Sort::Shown;
    switch (QChar::category(character)) {
    case QChar::Separator_Space:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return Sort::Blank;
    case QChar::Other_Control:
        return QChar::isSpace(character) ? Sort::Blank : Sort::LeftOut;
    case QChar::Other_Format: // the marks of direction are among them
    case QChar::Other_Surrogate:
    case QChar::Other_PrivateUse:
    case QChar::Other_NotAssigned:
        return Sort::LeftOut;
    default:
        return Sort::Shown;
    }
}

bool isForbiddenInNames(QChar character)
{
    return QStringLiteral("/\\:*?\"<>|").contains(character);
}

} // namespace

QString SafeText::line(const QString &text, int most)
{
    QString shown;
    // What is not looked at cannot be shown: a text may be huge.
    const QVector<uint> characters = text.left(8 * most).toUcs4();
    for (const uint character : characters) {
        const Sort sort = sortOf(character);
        if (sort == Sort::Shown)
            shown += QString::fromUcs4(&character, 1);
        else if (sort == Sort::Blank && !shown.isEmpty() && !shown.endsWith(QLatin1Char(' ')))
            shown += QLatin1Char(' ');
        if (shown.size() > most) {
            QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, shown);
            finder.setPosition(most);
            const int end = finder.isAtBoundary() ? most : finder.toPreviousBoundary();
            shown.truncate(qMax(0, end));
            break;
        }
    }
    return shown.trimmed();
}

QString SafeText::namePart(const QString &text)
{
    QString part = line(text).normalized(QString::NormalizationForm_C);
    for (QChar &character : part) {
        if (isForbiddenInNames(character))
            character = QLatin1Char('_');
    }
    if (part.startsWith(QLatin1Char('.')))
        part[0] = QLatin1Char('_');
    return part;
}

QString SafeText::cut(const QString &name, int bytes)
{
    QString kept;
    int size = 0;
    int start = 0;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, name);
    for (int end = finder.toNextBoundary(); end > 0; end = finder.toNextBoundary()) {
        const QString character = name.mid(start, end - start);
        size += character.toUtf8().size();
        if (size > bytes)
            break;
        kept += character;
        start = end;
    }
    while (kept.endsWith(QLatin1Char(' ')) || kept.endsWith(QLatin1Char('.')))
        kept.chop(1);
    return kept;
}
