#include "TextWidth.h"

#include <QTextBoundaryFinder>
#include <QVector>

#include <clocale>
#include <cwchar>

namespace {

/// The C library knows the widths of characters, in a locale of Unicode.
class UnicodeLocale final
{
public:
    UnicodeLocale()
        : m_locale(::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr))
        , m_before(m_locale ? ::uselocale(m_locale) : nullptr)
    {
    }
    ~UnicodeLocale()
    {
        if (!m_locale)
            return;
        ::uselocale(m_before);
        ::freelocale(m_locale);
    }
    Q_DISABLE_COPY(UnicodeLocale)

private:
    const locale_t m_locale;
    const locale_t m_before;
};

int widthOf(const QVector<uint> &characters)
{
    int width = 0;
    for (const uint character : characters) {
        const int columns = ::wcwidth(static_cast<wchar_t>(character));
        width += columns < 0 ? 1 : columns;
    }
    return width;
}

} // namespace

int TextWidth::of(const QString &text)
{
    const UnicodeLocale locale;
    return widthOf(text.toUcs4());
}

QString TextWidth::elided(const QString &text, int columns)
{
    if (columns <= 0)
        return {};
    const UnicodeLocale locale;
    if (widthOf(text.toUcs4()) <= columns)
        return text;
    QString kept;
    int width = 1; // of the ellipsis
    int start = 0;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    for (int end = finder.toNextBoundary(); end > 0; end = finder.toNextBoundary()) {
        const QString character = text.mid(start, end - start);
        width += widthOf(character.toUcs4());
        if (width > columns)
            break;
        kept += character;
        start = end;
    }
    return kept + QChar(0x2026);
}

QString TextWidth::fitted(const QString &text, int columns)
{
    const QString shown = elided(text, columns);
    return shown + QString(qMax(0, columns - of(shown)), QLatin1Char(' '));
}
