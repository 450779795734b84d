#include "DashTree.h"

#include "XmlLimits.h"

#include <QTextCodec>
#include <QXmlStreamReader>

#include <limits>

namespace {

std::optional<qint64> numberOf(const QStringRef &text)
{
    bool isNumber = false;
    const qint64 number = text.trimmed().toLongLong(&isNumber);
    return isNumber ? std::optional<qint64>(number) : std::nullopt;
}

/// Reads elements one inside the other.
class TreeReader final
{
public:
    explicit TreeReader(const QString &text)
        : m_reader(text)
    {
    }

    std::unique_ptr<DashTree> read(bool &hasLinks)
    {
        std::unique_ptr<DashTree> root;
        std::vector<DashTree *> open;
        while (!m_reader.atEnd() && !m_isBeyond) {
            switch (m_reader.readNext()) {
            case QXmlStreamReader::StartElement:
                hasLinks = hasLinks || isLink();
                begin(root, open);
                break;
            case QXmlStreamReader::EndElement:
                if (m_skipped > 0)
                    --m_skipped;
                else if (!open.empty())
                    open.pop_back();
                break;
            case QXmlStreamReader::Characters:
                if (!open.empty() && m_skipped == 0 && !m_reader.isWhitespace())
                    open.back()->text += m_reader.text();
                break;
            default:
                break;
            }
        }
        return m_isBeyond || m_reader.hasError() ? nullptr : std::move(root);
    }

private:
    [[nodiscard]] bool isLink() const
    {
        return m_reader.attributes().hasAttribute(QStringLiteral("http://www.w3.org/1999/xlink"),
                                                  QStringLiteral("href"));
    }

    void begin(std::unique_ptr<DashTree> &root, std::vector<DashTree *> &open)
    {
        if (m_skipped > 0 || (!open.empty() && takeSmall(*open.back()))) {
            ++m_skipped;
            return;
        }
        if (++m_count > DashTree::maxElements || open.size() >= DashTree::maxDepth) {
            m_isBeyond = true;
            return;
        }
        auto element = std::make_unique<DashTree>();
        element->name = m_reader.name().toString();
        const QXmlStreamAttributes attributes = m_reader.attributes();
        for (const QXmlStreamAttribute &attribute : attributes)
            element->attributes.emplace(attribute.name().toString(), attribute.value().toString());
        DashTree *const added = element.get();
        if (open.empty())
            root = std::move(element);
        else
            open.back()->children.push_back(std::move(element));
        open.push_back(added);
    }

    /// Takes one of the small elements into its parent. Returns false when it is another one.
    bool takeSmall(DashTree &parent)
    {
        const QXmlStreamAttributes attributes = m_reader.attributes();
        if (m_reader.name() == QLatin1String("S")) {
            parent.steps += {numberOf(attributes.value(QLatin1String("t"))),
                             numberOf(attributes.value(QLatin1String("d"))),
                             numberOf(attributes.value(QLatin1String("r")))};
            return true;
        }
        if (m_reader.name() == QLatin1String("SegmentURL")) {
            parent.addresses += {attributes.value(QLatin1String("media")).toString(),
                                 attributes.value(QLatin1String("mediaRange")).toString()};
            return true;
        }
        return false;
    }

    QXmlStreamReader m_reader;
    int m_count = 0;
    int m_skipped = 0; // elements that are open and not kept
    bool m_isBeyond = false; // the limits
};

} // namespace

bool DashTree::has(const char *attribute) const
{
    return attributes.count(QLatin1String(attribute)) > 0;
}

QString DashTree::value(const char *attribute) const
{
    const auto found = attributes.find(QLatin1String(attribute));
    return found == attributes.end() ? QString() : found->second;
}

std::optional<qint64> DashTree::number(const char *attribute, qint64 most) const
{
    const QString written = value(attribute);
    const std::optional<qint64> found = numberOf(QStringRef(&written));
    return found && *found >= 0 && *found <= most ? found : std::nullopt;
}

const DashTree *DashTree::child(const char *childName) const
{
    for (const auto &one : children) {
        if (one->name == QLatin1String(childName))
            return one.get();
    }
    return nullptr;
}

std::vector<const DashTree *> DashTree::all(const char *childName) const
{
    std::vector<const DashTree *> found;
    for (const auto &one : children) {
        if (one->name == QLatin1String(childName))
            found.push_back(one.get());
    }
    return found;
}

std::unique_ptr<DashTree> DashTree::read(const QByteArray &document, bool &hasLinks)
{
    const QTextCodec *const codec =
        QTextCodec::codecForUtfText(document, QTextCodec::codecForName("UTF-8"));
    QString text = codec->toUnicode(document);
    if (text.startsWith(QChar(0xFEFF)))
        text.remove(0, 1);
    if (!XmlLimits::accepts(text))
        return nullptr;
    return TreeReader(text).read(hasLinks);
}
