#include "AdobeUtils.h"

#include "HostEvents.h"
#include "XPathDocument.h"

#include <QCryptographicHash>
#include <QEventLoop>
#include <QFile>
#include <QRegExp>
#include <QUrl>
#include <QtEndian>

#include <optional>

namespace {

constexpr unsigned int compactHeaderBytes = 8; // 32-bit size and type
constexpr unsigned int largeSizeBytes = 8; // the 64-bit size that follows a 32-bit size of 1
constexpr unsigned int tagTimestampOffset = 4;
constexpr unsigned int tagTimestampExtensionOffset = 7;

const uchar *bytesAt(const QByteArray &data, unsigned int pos, unsigned int count)
{
    Q_ASSERT(CAdobeUtils::HasBytes(data, pos, count));
    Q_UNUSED(count)
    return reinterpret_cast<const uchar *>(data.constData()) + pos;
}

uchar *growTo(QByteArray &data, unsigned int pos, unsigned int count)
{
    const quint64 end = quint64(pos) + count;
    if (static_cast<quint64>(data.size()) < end)
        data.resize(static_cast<int>(end));
    return reinterpret_cast<uchar *>(data.data()) + pos;
}

bool isSameValue(const QVariant &a, const QVariant &b, bool isStrict)
{
    return isStrict ? a.userType() == b.userType() && a == b : a.toString() == b.toString();
}

std::optional<QVariantMap> findInList(const QVariant &list, const QString &field,
                                      const QVariant &value, bool isStrict)
{
    const QVariantList items = list.toList();
    for (const QVariant &item : items) {
        const QVariantMap map = item.toMap();
        const auto found = map.constFind(field);
        if (found != map.cend() && isSameValue(*found, value, isStrict))
            return map;
    }
    return std::nullopt;
}

} // namespace

bool CAdobeUtils::HasBytes(const QByteArray &data, quint64 pos, quint64 count)
{
    const auto size = static_cast<quint64>(data.size());
    return pos <= size && count <= size - pos;
}

unsigned int CAdobeUtils::ReadByte(const QByteArray &data, unsigned int pos)
{
    return *bytesAt(data, pos, 1);
}

unsigned int CAdobeUtils::ReadInt24(const QByteArray &data, unsigned int pos)
{
    const uchar *bytes = bytesAt(data, pos, 3);
    return unsigned(bytes[0]) << 16 | unsigned(bytes[1]) << 8 | bytes[2];
}

int CAdobeUtils::ReadInt32(const QByteArray &data, unsigned int pos)
{
    return qFromBigEndian<qint32>(bytesAt(data, pos, 4));
}

long long CAdobeUtils::ReadInt64(const QByteArray &data, unsigned int pos)
{
    return qFromBigEndian<qint64>(bytesAt(data, pos, 8));
}

int CAdobeUtils::ReadPacketTS(const QByteArray &data, unsigned int pos)
{
    const unsigned int timestamp = ReadInt24(data, pos + tagTimestampOffset)
        | ReadByte(data, pos + tagTimestampExtensionOffset) << 24;
    return static_cast<int>(timestamp & 0x7FFFFFFFU);
}

QByteArray CAdobeUtils::ReadString(const QByteArray &data, unsigned int &pos)
{
    const auto size = static_cast<unsigned int>(data.size());
    if (pos >= size) {
        pos = size + 1;
        return {};
    }
    const int zero = data.indexOf('\0', static_cast<int>(pos));
    const unsigned int end = zero < 0 ? size : static_cast<unsigned int>(zero);
    const QByteArray text = data.mid(static_cast<int>(pos), static_cast<int>(end - pos));
    pos = end + 1;
    return text;
}

QByteArray CAdobeUtils::ByteArraySubstring(const QByteArray &data, unsigned int start, int len)
{
    if (len <= 0 || start >= static_cast<unsigned int>(data.size()))
        return {};
    return data.mid(static_cast<int>(start), len);
}

void CAdobeUtils::ReadBoxHeader(const QByteArray &data, unsigned int &pos, QByteArray &type,
                                unsigned long long &size)
{
    size = static_cast<quint32>(ReadInt32(data, pos));
    type = ByteArraySubstring(data, pos + 4, 4);
    pos += compactHeaderBytes;
    unsigned long long headerBytes = compactHeaderBytes;
    if (size == 1) {
        size = static_cast<unsigned long long>(ReadInt64(data, pos));
        pos += largeSizeBytes;
        headerBytes += largeSizeBytes;
    }
    if (size != 0)
        size -= headerBytes;
}

void CAdobeUtils::WriteByte(QByteArray &data, unsigned int pos, signed char value)
{
    *growTo(data, pos, 1) = static_cast<uchar>(value);
}

void CAdobeUtils::WriteInt24(QByteArray &data, unsigned int pos, int value)
{
    uchar *bytes = growTo(data, pos, 3);
    bytes[0] = static_cast<uchar>(value >> 16 & 0xFF);
    bytes[1] = static_cast<uchar>(value >> 8 & 0xFF);
    bytes[2] = static_cast<uchar>(value & 0xFF);
}

void CAdobeUtils::WriteInt32(QByteArray &data, unsigned int pos, int value)
{
    qToBigEndian<qint32>(value, growTo(data, pos, 4));
}

void CAdobeUtils::WriteFlvTimestamp(QByteArray &data, unsigned int pos, int timestampMs)
{
    WriteInt24(data, pos + tagTimestampOffset, timestampMs & 0xFFFFFF);
    WriteByte(data, pos + tagTimestampExtensionOffset, static_cast<signed char>(timestampMs >> 24));
}

void CAdobeUtils::WriteBoxSize(QByteArray &data, unsigned int pos, const QByteArray &type,
                               unsigned long long size)
{
    const int low = static_cast<int>(static_cast<quint32>(size & 0xFFFFFFFFU));
    if (ByteArraySubstring(data, pos - 4, 4) == type) {
        WriteInt32(data, pos - 8, low);
        return;
    }
    WriteInt32(data, pos - 8, 0);
    WriteInt32(data, pos - 4, low);
}

QByteArray CAdobeUtils::ReadFileContent(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool CAdobeUtils::WriteFileContent(const QString &path, const QByteArray &data, bool append)
{
    QFile file(path);
    if (!append || !file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        QFile::remove(path); // so that what somebody else has open or linked is left alone
        if (!file.open(QIODevice::WriteOnly))
            return false;
    }
    file.write(data); // only the open is reported: those who must know write for themselves
    return true;
}

void CAdobeUtils::WaitFor(const QObject *sender, const char *signal)
{
    QEventLoop loop;
    QObject::connect(sender, signal, &loop, SLOT(quit()));
    QObject::connect(sender, &QObject::destroyed, &loop, &QEventLoop::quit);
    loop.exec();
}

QStringList CAdobeUtils::execxPathQuery(const QString &xml, const QString &query)
{
    return XPathDocument(xml).strings(query);
}

QString CAdobeUtils::GetXPathString(const QString &xml, const QString &query)
{
    return execxPathQuery(xml, query).value(0);
}

QList<QDomElement> CAdobeUtils::GetChildNodeList(const QDomElement &parent, const QString &name,
                                                 const QString &attribute, const QString &value)
{
    QList<QDomElement> children;
    for (QDomElement child = parent.firstChildElement(name); !child.isNull();
         child = child.nextSiblingElement(name)) {
        if (attribute.isEmpty()
            || (child.hasAttribute(attribute) && child.attribute(attribute) == value))
            children += child;
    }
    return children;
}

QString CAdobeUtils::GetXmlSubNodeString(const QDomElement &parent, const QString &name)
{
    return parent.firstChildElement(name).text();
}

QMap<QString, QString> CAdobeUtils::GetNodeAttriMap(const QDomNode &node)
{
    QMap<QString, QString> values;
    const QDomNamedNodeMap attributes = node.attributes();
    for (int i = 0; i < attributes.count(); ++i) {
        const QDomAttr attribute = attributes.item(i).toAttr();
        values.insert(attribute.name(), attribute.value());
    }
    return values;
}

QDomDocument CAdobeUtils::loadXmlFile(const QString &xml)
{
    QDomDocument document;
    QString message;
    int line = 0;
    int column = 0;
    if (document.setContent(xml, &message, &line, &column))
        return document;
    HostEvents::send(event::XmlBroken{line, column});
    return {};
}

QString CAdobeUtils::RegexString(const QString &text, const QString &pattern)
{
    QRegExp expression(pattern);
    return expression.indexIn(text) < 0 ? QString() : expression.cap(1);
}

QString CAdobeUtils::RegexString2(const QString &text, const QString &pattern, const QString &arg)
{
    return RegexString(text, pattern.arg(arg));
}

QStringList CAdobeUtils::RegexStringList(const QString &pattern, const QString &text)
{
    QRegExp expression(pattern);
    QStringList captures;
    int pos = 0;
    while (pos <= text.size() && (pos = expression.indexIn(text, pos)) >= 0) {
        captures += expression.cap(1);
        pos += qMax(1, expression.matchedLength()); // an empty match must not match again
    }
    return captures;
}

QByteArray CAdobeUtils::QStringToHex(const QString &hex)
{
    QByteArray bytes;
    for (int i = 0; i < hex.size(); i += 2) {
        bool isNumber = false;
        const uint value = hex.midRef(i, 2).toUInt(&isNumber, 16);
        if (!isNumber)
            return {};
        bytes += static_cast<char>(value);
    }
    return bytes;
}

QString CAdobeUtils::GetMD5String(const QString &text)
{
    const QByteArray hash = QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Md5);
    return QString::fromLatin1(hash.toHex()).toUpper();
}

QString CAdobeUtils::RemoveExtension(const QString &name)
{
    const QString extension = RegexString(name, QStringLiteral("(\\.\\w{1,4})"));
    if (extension.isEmpty())
        return name;
    const int index = name.indexOf(extension);
    return index > 0 ? name.left(index) : name;
}

QString CAdobeUtils::GetBaseUrl(const QString &url)
{
    const int query = url.indexOf(QLatin1Char('?'));
    const QString base = query > 0 ? url.left(query) : url;
    const int slash = base.lastIndexOf(QLatin1Char('/'));
    return slash >= 1 && slash != base.size() - 1 ? base.left(slash + 1) : base;
}

QString CAdobeUtils::NormalizePath(const QString &url)
{
    QStringList parts = url.split(QRegExp(QStringLiteral("/")));
    parts.removeAll(QStringLiteral(".."));
    const QString path = parts.join(QLatin1Char('/'));
    if (path.startsWith(QLatin1String("//")))
        return QLatin1String("http:") + path;
    if (path.startsWith(QLatin1Char('/')))
        return QLatin1String("http:/") + path;
    return path.contains(QLatin1String("//")) ? path : QString();
}

QString CAdobeUtils::JoinUrl(const QString &base, const QString &relative)
{
    if (relative.startsWith(QLatin1String("http")))
        return relative;
    return QUrl(base).resolved(QUrl(relative)).toString();
}

bool CAdobeUtils::in_array_field(const QVariant &list, const QString &field, const QVariant &value,
                                 bool isStrict)
{
    return findInList(list, field, value, isStrict).has_value();
}

QVariant CAdobeUtils::value_in_array_field(const QVariant &list, const QString &field,
                                           const QString &otherField, const QVariant &value,
                                           bool isStrict)
{
    const auto found = findInList(list, field, value, isStrict);
    return found ? found->value(otherField) : QVariant();
}
