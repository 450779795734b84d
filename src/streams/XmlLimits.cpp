#include "XmlLimits.h"

#include <QRegularExpression>
#include <QSet>
#include <QVector>
#include <QXmlStreamReader>

namespace {

constexpr int maxDoctypeCharacters = 1000;

bool startsWith(const QString &xml, int at, const char *text)
{
    return xml.midRef(at).startsWith(QLatin1String(text));
}

/// The position behind the next such text; the end when there is none.
int behind(const QString &xml, int from, const char *text)
{
    const QLatin1String mark(text);
    const int at = xml.indexOf(mark, from);
    return at < 0 ? xml.size() : at + mark.size();
}

/// Whether a DOCTYPE from one position to another says no more than the name of the root.
bool isBareDoctype(const QString &xml, int begin, int end)
{
    static const QRegularExpression bare(
        QStringLiteral("^<!DOCTYPE\\s+[^\\s<>\\[\\]\"'&%]+\\s*>$"));
    return end - begin <= maxDoctypeCharacters
        && bare.match(xml.mid(begin, end - begin)).hasMatch();
}

/// Moves from the beginning of a tag behind its end and returns the number of its attributes.
int takeTag(const QString &xml, int &pos)
{
    int values = 0;
    for (++pos; pos < xml.size() && xml.at(pos) != QLatin1Char('>'); ++pos) {
        const QChar c = xml.at(pos);
        if (c != QLatin1Char('"') && c != QLatin1Char('\''))
            continue;
        ++values;
        const int end = xml.indexOf(c, pos + 1);
        pos = end < 0 ? xml.size() : end;
    }
    ++pos;
    return values;
}

/// Looks for what the reader must not even begin with, in its order: up to the first place where
/// the text is not well-formed, and where the reader stops, both see the same tags. Returns why the
/// text is refused; null when it is not.
const char *objectionToMarkup(const QString &xml)
{
    for (int pos = xml.indexOf(QLatin1Char('<')); pos >= 0;
         pos = xml.indexOf(QLatin1Char('<'), pos)) {
        if (startsWith(xml, pos, "<!--")) {
            pos = behind(xml, pos + 4, "-->");
        } else if (startsWith(xml, pos, "<![CDATA[")) {
            pos = behind(xml, pos + 9, "]]>");
        } else if (startsWith(xml, pos, "<?")) {
            pos = behind(xml, pos + 2, "?>");
        } else if (startsWith(xml, pos, "<!")) {
            const int end = behind(xml, pos, ">");
            if (!isBareDoctype(xml, pos, end))
                return "it has a DOCTYPE that is more than a name";
            pos = end;
        } else if (takeTag(xml, pos) > XmlLimits::maxAttributes) {
            return "a tag has too many attributes";
        }
    }
    return nullptr;
}

/// Counts what a reader comes by.
class Tally final
{
public:
    /// Takes the reader's current token. Returns why the text is refused; null when it is not yet.
    const char *take(const QXmlStreamReader &reader)
    {
        ++m_nodes;
        switch (reader.tokenType()) {
        case QXmlStreamReader::StartElement:
            takeElement(reader);
            break;
        case QXmlStreamReader::EndElement:
            --m_nodes;
            m_declarations -= m_declared.takeLast();
            break;
        case QXmlStreamReader::ProcessingInstruction:
            m_names.insert(reader.processingInstructionTarget().toString());
            break;
        default:
            break;
        }
        return objection();
    }

private:
    void takeElement(const QXmlStreamReader &reader)
    {
        m_names.insert(reader.name().toString());
        const QXmlStreamAttributes attributes = reader.attributes();
        for (const QXmlStreamAttribute &attribute : attributes) {
            m_names.insert(attribute.name().toString());
            // Declared or not: the prefix of the language itself is not.
            m_prefixes.insert(attribute.prefix().toString());
        }
        const QXmlStreamNamespaceDeclarations declarations = reader.namespaceDeclarations();
        for (const QXmlStreamNamespaceDeclaration &declaration : declarations) {
            m_prefixes.insert(declaration.prefix().toString());
            m_namespaces.insert(declaration.namespaceUri().toString());
        }
        m_nodes += attributes.size() + declarations.size();
        m_declarations += declarations.size();
        m_declared += declarations.size();
    }

    [[nodiscard]] const char *objection() const
    {
        if (m_declared.size() > XmlLimits::maxDepth)
            return "it is nested too deeply";
        if (m_nodes > XmlLimits::maxNodes)
            return "it has too many nodes";
        if (m_names.size() > XmlLimits::maxNames)
            return "it has too many different names";
        if (m_namespaces.size() > XmlLimits::maxNamespaces
            || m_prefixes.size() > XmlLimits::maxNamespaces
            || m_declarations > XmlLimits::maxNamespaces)
            return "it has too many namespaces";
        return nullptr;
    }

    int m_nodes = 0;
    int m_declarations = 0; // in force
    QVector<int> m_declared; // by each open element
    QSet<QString> m_names;
    QSet<QString> m_prefixes;
    QSet<QString> m_namespaces;
};

} // namespace

bool XmlLimits::accepts(const QString &xml)
{
    const char *reason = objectionToMarkup(xml);
    QXmlStreamReader reader(reason ? QString() : xml);
    Tally tally;
    while (!reason && !reader.atEnd()) {
        reader.readNext();
        if (!reader.hasError())
            reason = tally.take(reader);
    }
    if (reason)
        qWarning("an XML document of %d characters is refused: %s", xml.size(), reason);
    return !reason && !reader.hasError();
}
