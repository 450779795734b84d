#ifndef NAMETEMPLATE_H
#define NAMETEMPLATE_H

#include "PageFacts.h"

#include <optional>
#include <vector>

/// How files are named after their pages: text with fields in braces, which may name folders. What
/// comes from a page never does: it cannot leave its place in the name.
class NameTemplate final
{
public:
    /// The template for people who name none.
    NameTemplate();

    /// Reads a template; "{{" and "}}" are braces. Nothing, and the reason, when it names an
    /// unknown field, a path that does not lead downwards, or no file.
    [[nodiscard]] static std::optional<NameTemplate> parse(const QString &text, QString *reason);

    /// The name for a page, relative to the folder, without control characters and never empty.
    /// @param extension of the file, without a dot
    [[nodiscard]] QString nameFor(const PageFacts &page, const QString &extension) const;

    /// What a page is called in names: a few characters made of its address.
    [[nodiscard]] static QString idOf(const QString &address);

private:
    enum class Field { Text, Title, Host, Date, Height, Extension, Id };
    struct Piece
    {
        Field field = Field::Text;
        QString text; ///< of Field::Text
    };

    [[nodiscard]] static std::optional<Field> fieldOf(const QString &name);
    [[nodiscard]] static QString valueOf(Field field, const PageFacts &page,
                                         const QString &extension);
    [[nodiscard]] bool leadsDownwards() const;

    std::vector<Piece> m_pieces;
};

#endif
