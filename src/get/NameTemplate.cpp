#include "NameTemplate.h"

#include "SafeText.h"

#include <QCryptographicHash>
#include <QStringList>
#include <QUrl>

#include <limits>

namespace {

constexpr int idDigits = 12;

/// A name's bytes: file systems take 255, and a number and the names of parts come to it.
constexpr int mostNameBytes = 200;
constexpr int mostExtensionBytes = 16;

/// What a page without a title is called: by the end of its address, or by its host.
QString titleOf(const PageFacts &page)
{
    const QString title = SafeText::namePart(page.title);
    if (!title.isEmpty())
        return title;
    const QUrl address(page.address);
    const QString path = address.path();
    QString name =
        SafeText::namePart(path.section(QLatin1Char('/'), -1, -1, QString::SectionSkipEmpty));
    const int dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot > 0)
        name.truncate(dot);
    return name.isEmpty() ? SafeText::namePart(address.host()) : name;
}

/// One name of a path, no longer than file systems take, its extension kept.
QString shortened(const QString &given)
{
    const QString name = SafeText::cut(given, std::numeric_limits<int>::max());
    const int dot = name.lastIndexOf(QLatin1Char('.'));
    const QString extension = dot > 0 ? name.mid(dot) : QString();
    if (extension.toUtf8().size() > mostExtensionBytes)
        return SafeText::cut(name, mostNameBytes);
    const int room = mostNameBytes - extension.toUtf8().size();
    const QString stem = SafeText::cut(name.left(name.size() - extension.size()), room);
    return stem + extension;
}

} // namespace

NameTemplate::NameTemplate()
    : m_pieces{{Field::Title, {}}, {Field::Text, QStringLiteral(".")}, {Field::Extension, {}}}
{
}

std::optional<NameTemplate::Field> NameTemplate::fieldOf(const QString &name)
{
    static const std::vector<std::pair<QLatin1String, Field>> fields{
        {QLatin1String("title"), Field::Title},   {QLatin1String("host"), Field::Host},
        {QLatin1String("date"), Field::Date},     {QLatin1String("height"), Field::Height},
        {QLatin1String("ext"), Field::Extension}, {QLatin1String("id"), Field::Id},
    };
    for (const auto &[known, field] : fields) {
        if (name == known)
            return field;
    }
    return std::nullopt;
}

std::optional<NameTemplate> NameTemplate::parse(const QString &text, QString *reason)
{
    NameTemplate parsed;
    parsed.m_pieces.clear();
    QString plain;
    for (int i = 0; i < text.size(); ++i) {
        const QChar character = text.at(i);
        const bool isOpening = character == QLatin1Char('{');
        if (!isOpening && character != QLatin1Char('}')) {
            plain += character;
            continue;
        }
        if (i + 1 < text.size() && text.at(i + 1) == character) {
            plain += character;
            ++i;
            continue;
        }
        const int end = isOpening ? text.indexOf(QLatin1Char('}'), i) : -1;
        if (end < 0) {
            *reason = QStringLiteral("a brace has no other");
            return std::nullopt;
        }
        const QString name = text.mid(i + 1, end - i - 1);
        const std::optional<Field> field = fieldOf(name);
        if (!field) {
            *reason = QStringLiteral("there is no field {%1}").arg(SafeText::line(name));
            return std::nullopt;
        }
        parsed.m_pieces.push_back({Field::Text, plain});
        parsed.m_pieces.push_back({*field, {}});
        plain.clear();
        i = end;
    }
    parsed.m_pieces.push_back({Field::Text, plain});
    if (!parsed.leadsDownwards()) {
        *reason = QStringLiteral("it must name a file below the folder");
        return std::nullopt;
    }
    return parsed;
}

/// Fields hold no slashes and do not begin with a dot, so it is the text that tells.
bool NameTemplate::leadsDownwards() const
{
    QString path;
    for (const Piece &piece : m_pieces)
        path += piece.field == Field::Text ? piece.text : QStringLiteral("x");
    if (path.isEmpty() || path.contains(QChar(0)))
        return false;
    const QStringList names = path.split(QLatin1Char('/'));
    for (const QString &name : names) {
        if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
            return false;
    }
    return true;
}

QString NameTemplate::valueOf(Field field, const PageFacts &page, const QString &extension)
{
    switch (field) {
    case Field::Title:
        return titleOf(page);
    case Field::Host:
        return SafeText::namePart(QUrl(page.address).host());
    case Field::Date:
        return page.begunAt.toString(QStringLiteral("yyyy-MM-dd"));
    case Field::Height:
        return QString::number(page.height);
    case Field::Extension:
        return SafeText::namePart(extension);
    case Field::Id:
        return idOf(page.address);
    case Field::Text:
        break;
    }
    return {};
}

QString NameTemplate::nameFor(const PageFacts &page, const QString &extension) const
{
    QStringList names{QString()};
    for (const Piece &piece : m_pieces) {
        const QStringList parts = piece.field == Field::Text
            ? piece.text.split(QLatin1Char('/'))
            : QStringList{valueOf(piece.field, page, extension)};
        names.last() += parts.constFirst();
        names += parts.mid(1);
    }
    for (QString &name : names) {
        name = shortened(name.trimmed());
        // A field may have been empty, or nothing but what names must not end with.
        if (name.isEmpty() || name == QLatin1String("."))
            name = idOf(page.address);
    }
    return names.join(QLatin1Char('/'));
}

QString NameTemplate::idOf(const QString &address)
{
    const QByteArray sum = QCryptographicHash::hash(address.toUtf8(), QCryptographicHash::Sha256);
    return QString::fromLatin1(sum.toHex().left(idDigits));
}
