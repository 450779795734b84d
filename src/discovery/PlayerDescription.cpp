#include "PlayerDescription.h"

#include "utils.h"

#include <QJsonDocument>
#include <QStringList>
#include <QVariant>

namespace {

QVariantList listOf(const QVariant &item, const char *key)
{
    return item.toMap().value(QLatin1String(key)).toList();
}

bool isNamed(const QVariant &item, const char *name)
{
    return item.toMap().value(QStringLiteral("name")).toString() == QLatin1String(name);
}

/// The "param" maps of all video entries, in the description's order.
QList<QVariantMap> videoParameters(const QVariantMap &root)
{
    QList<QVariantMap> parameters;
    for (const QVariant &item : listOf(root, "sequence")) {
        for (const QVariant &layer : listOf(item, "layerList")) {
            for (const QVariant &entry : listOf(layer, "sequenceList")) {
                if (!isNamed(entry, "main"))
                    continue;
                for (const QVariant &inner : listOf(entry, "layerList")) {
                    if (isNamed(inner, "video"))
                        parameters += inner.toMap().value(QStringLiteral("param")).toMap();
                }
            }
        }
    }
    return parameters;
}

} // namespace

QByteArray PlayerDescription::piecesIn(const QString &flashVars)
{
    const QLatin1String name("sequence=");
    QByteArray pieces;
    const QStringList variables = flashVars.split(QLatin1Char('&'));
    for (const QString &variable : variables) {
        const int at = variable.indexOf(name);
        if (at >= 0)
            pieces += QByteArray::fromPercentEncoding(variable.mid(at + name.size()).toUtf8());
    }
    return pieces;
}

QList<PlayerDescription::Stream> PlayerDescription::streams(const QByteArray &description)
{
    const QVariantMap root = QJsonDocument::fromJson(description).toVariant().toMap();
    if (root.contains(QStringLiteral("error")))
        return {};

    QList<Stream> found;
    const QStringList qualities = QStringLiteral("hd1080|hd720|hq|sd|ld").split(QLatin1Char('|'));
    const QList<QVariantMap> parameters = videoParameters(root);
    for (const QVariantMap &parameter : parameters) {
        for (const QString &quality : qualities) {
            const QString address =
                Utils::DecodeUrl(parameter.value(quality + QLatin1String("URL")).toString());
            if (!address.isEmpty())
                found += {address, quality};
        }
    }
    return found;
}
