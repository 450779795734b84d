#ifndef HOSTLINE_H
#define HOSTLINE_H

#include <QString>
#include <QStringList>

/// One line for the host program, built from pieces and sent as one Qt debug message. The tool of
/// TextRenderer: whoever has something to say sends a HostEvent.
///
/// Hosts compare these lines byte for byte, so this is the only place that makes them: pieces are
/// joined by one space and the line ends with one space. Control characters and line separators
/// are replaced by their JSON escapes, so that a line made from page text stays one line and a
/// JSON document stays valid. May be used from any thread.
class HostLine final
{
public:
    /// Appends a piece as it stands.
    HostLine &text(const QString &piece);

    /// Appends a piece between double quotes. Quotes inside it are not escaped.
    HostLine &quoted(const QString &piece);

    /// Appends a list as its quoted items, separated by ", " and enclosed in parentheses.
    HostLine &list(const QStringList &items);

    /// The line without its line end.
    [[nodiscard]] QString toString() const;

    /// The text with every control character and line separator replaced by its JSON escape, so
    /// that it is one line to whatever reads it.
    [[nodiscard]] static QString onOneLine(const QString &text);

    /// Whether the character is a control character or a line separator.
    [[nodiscard]] static bool breaksLine(QChar c);

    /// Sends the line as a debug message.
    void send() const;

    /// Sends a line of one fixed text: the text and one space.
    static void sendText(const QString &text);

    /// Sends a line of one composed text: the text between double quotes and one space.
    static void sendQuoted(const QString &text);

    /// Sends a line that was printed from a format of its own: without a trailing space.
    static void sendPlain(const QString &line);

private:
    QString m_line;
};

#endif
