#include "WebkitSnapshot.h"

#include <QWebElement>
#include <QWebElementCollection>
#include <QWebFrame>

namespace {

PageSnapshot::Attributes attributesOf(const QWebElement &element)
{
    PageSnapshot::Attributes attributes;
    const QStringList names = element.attributeNames();
    for (const QString &name : names)
        attributes += qMakePair(name, element.attribute(name));
    return attributes;
}

} // namespace

PageSnapshot WebkitSnapshot::of(const QWebFrame &frame)
{
    PageSnapshot snapshot;
    const QWebElement root = frame.documentElement();
    snapshot.source = frame.toHtml();
    snapshot.hasRootAttributes = root.hasAttributes();
    const QWebElementCollection params = root.findAll(QStringLiteral("param"));
    for (const QWebElement &param : params)
        snapshot.params += attributesOf(param);
    return snapshot;
}
