#include "XPathDocument.h"

#include "XmlLimits.h"

#include <QAbstractMessageHandler>
#include <QAbstractUriResolver>
#include <QUrl>
#include <QXmlItem>
#include <QXmlQuery>
#include <QXmlResultItems>

namespace {

class SilentHandler final : public QAbstractMessageHandler
{
protected:
    void handleMessage(QtMsgType, const QString &, const QUrl &, const QSourceLocation &) override
    {
    }
};

/// Resolves nothing, so that no query can fetch another document.
class RefusingResolver final : public QAbstractUriResolver
{
public:
    QUrl resolve(const QUrl &, const QUrl &) const override { return {}; }
};

/// The text without byte order mark and XML declaration: it is characters by now, and an encoding
/// declared for its former bytes would have them decoded a second time.
QString withoutDeclaration(const QString &xml)
{
    int start = xml.startsWith(QChar(0xFEFF)) ? 1 : 0;
    if (xml.midRef(start).startsWith(QLatin1String("<?xml "))) {
        const int end = xml.indexOf(QLatin1String("?>"), start);
        start = end < 0 ? xml.size() : end + 2;
    }
    return xml.mid(start);
}

} // namespace

class XPathDocument::Engine final
{
public:
    explicit Engine(const QString &xml)
    {
        m_query.setMessageHandler(&m_handler);
        m_isReady = m_query.setFocus(xml);
        m_query.setUriResolver(&m_resolver);
        if (m_isReady) {
            m_query.setQuery(QStringLiteral("/"));
            m_document = items().value(0);
        }
    }

    [[nodiscard]] bool isReady() const { return m_isReady; }

    QStringList strings(const QXmlItem &focus, const QString &text)
    {
        QStringList results;
        if (!prepare(focus, text) || !m_query.evaluateTo(&results))
            return {};
        return results;
    }

    QVector<QXmlItem> nodes(const QString &text)
    {
        return prepare(m_document, text) ? items() : QVector<QXmlItem>();
    }

    [[nodiscard]] const QXmlItem &document() const { return m_document; }

    QVector<QXmlItem> selected;

private:
    bool prepare(const QXmlItem &focus, const QString &text)
    {
        m_query.setFocus(focus);
        m_query.setQuery(text);
        return m_query.isValid();
    }

    QVector<QXmlItem> items()
    {
        QVector<QXmlItem> found;
        QXmlResultItems results;
        m_query.evaluateTo(&results);
        for (QXmlItem item = results.next(); !item.isNull(); item = results.next())
            found += item;
        return found;
    }

    SilentHandler m_handler;
    RefusingResolver m_resolver;
    QXmlQuery m_query; // owns the parsed document, so the items live as long as it does
    QXmlItem m_document;
    bool m_isReady = false;
};

XPathDocument::XPathDocument(const QString &xml)
{
    const QString text = withoutDeclaration(xml);
    if (!XmlLimits::accepts(text))
        return;
    auto engine = std::make_unique<Engine>(text);
    if (engine->isReady())
        m_engine = std::move(engine);
}

XPathDocument::~XPathDocument() = default;

bool XPathDocument::isUsable() const
{
    return m_engine != nullptr;
}

QStringList XPathDocument::strings(const QString &query)
{
    return m_engine ? m_engine->strings(m_engine->document(), query) : QStringList();
}

int XPathDocument::select(const QString &query)
{
    if (!m_engine)
        return 0;
    m_engine->selected = m_engine->nodes(query);
    return m_engine->selected.size();
}

QStringList XPathDocument::stringsAt(int n, const QString &query)
{
    if (!m_engine || n < 0 || n >= m_engine->selected.size())
        return {};
    return m_engine->strings(m_engine->selected.at(n), query);
}
