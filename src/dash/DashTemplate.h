#ifndef DASHTEMPLATE_H
#define DASHTEMPLATE_H

#include <QString>

/// Addresses that are made of a template (ISO/IEC 23009-1, section 5.3.9.4.4). Pure functions.
class DashTemplate final
{
public:
    DashTemplate() = delete;

    /// What takes the place of the identifiers.
    struct Values
    {
        QString representation;
        qint64 bandwidth = 0;
        qint64 number = 0;
        qint64 time = 0;
    };

    static constexpr int maxWidth = 32; ///< to which numbers are filled up with zeros

    /// Whether all identifiers are known and no width is beyond reason.
    [[nodiscard]] static bool isValid(const QString &text);

    /// The text with values in the place of identifiers; empty when it is not valid.
    [[nodiscard]] static QString expand(const QString &text, const Values &values);
};

#endif
