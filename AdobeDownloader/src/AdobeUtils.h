#ifndef ADOBEUTILS_H
#define ADOBEUTILS_H

#include <QByteArray>
#include <QDomDocument>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>

/// Stateless helpers of the HDS downloader: big-endian fields, boxes, XPath, files and addresses.
///
/// The byte readers do not check bounds: the caller makes sure with HasBytes() that what is read
/// lies inside the data. All functions may be called on any thread.
class CAdobeUtils final
{
public:
    CAdobeUtils() = delete;

    // Big-endian readers; `pos` is a byte offset.

    /// Whether `count` bytes can be read at `pos`.
    [[nodiscard]] static bool HasBytes(const QByteArray &data, quint64 pos, quint64 count);

    [[nodiscard]] static unsigned int ReadByte(const QByteArray &data, unsigned int pos);
    [[nodiscard]] static unsigned int ReadInt24(const QByteArray &data, unsigned int pos);
    [[nodiscard]] static int ReadInt32(const QByteArray &data, unsigned int pos);
    [[nodiscard]] static long long ReadInt64(const QByteArray &data, unsigned int pos);

    /// The timestamp, in milliseconds, of the FLV tag that starts at `pos`: 24 low bits at
    /// `pos` + 4, bits 24 to 30 at `pos` + 7. Bit 31 is cleared, so it is never negative.
    [[nodiscard]] static int ReadPacketTS(const QByteArray &data, unsigned int pos);

    /// The bytes up to the next zero byte, or to the end of the data; `pos` moves past that byte,
    /// which is one past the end of the data when there is none.
    static QByteArray ReadString(const QByteArray &data, unsigned int &pos);

    /// `len` bytes from `start`, cut at the end of the data; empty when nothing is left there.
    [[nodiscard]] static QByteArray ByteArraySubstring(const QByteArray &data, unsigned int start,
                                                       int len);

    /// Reads a box header (ISO/IEC 14496-12, section 4.2) and moves `pos` to the payload: 8 bytes
    /// further, or 16 when the 32-bit size is 1 and a 64-bit size follows the type.
    /// @param size the number of payload bytes. A declared 0 stays 0; a declared size below that
    ///             of the header wraps to a huge value, so callers bound it by the data length.
    static void ReadBoxHeader(const QByteArray &data, unsigned int &pos, QByteArray &type,
                              unsigned long long &size);

    // Big-endian writers: grow the target when it ends before the field does.

    static void WriteByte(QByteArray &data, unsigned int pos, signed char value);
    static void WriteInt24(QByteArray &data, unsigned int pos, int value);
    static void WriteInt32(QByteArray &data, unsigned int pos, int value);

    /// Sets the timestamp, in milliseconds, of the FLV tag that starts at `pos`.
    static void WriteFlvTimestamp(QByteArray &data, unsigned int pos, int timestampMs);

    /// Sets the size of the box whose payload starts at `pos`, which is 8 or more (16 when its
    /// header has a 64-bit size). `size` counts header and payload; its low 32 bits are stored.
    static void WriteBoxSize(QByteArray &data, unsigned int pos, const QByteArray &type,
                             unsigned long long size);

    // Files and events.

    /// The whole file; empty when it cannot be opened.
    [[nodiscard]] static QByteArray ReadFileContent(const QString &path);

    /// Writes the file afresh, or at its end when `append` is set. Returns whether it could be
    /// opened; what happens after that is not reported.
    static bool WriteFileContent(const QString &path, const QByteArray &data, bool append);

    /// Runs a nested event loop of the calling thread until the signal fires. The loop also ends
    /// when the sender is destroyed or the application quits, so callers check what they waited
    /// for. There is no time limit.
    static void WaitFor(const QObject *sender, const char *signal);

    // XML.

    /// The results of an XPath query over XML text, which is the query's focus. Empty for no match,
    /// an invalid query, or text that is not well-formed or beyond XmlLimits.
    [[nodiscard]] static QStringList execxPathQuery(const QString &xml, const QString &query);

    /// The first result of execxPathQuery(); empty when there is none.
    [[nodiscard]] static QString GetXPathString(const QString &xml, const QString &query);

    /// The child elements of that name, in order. With an attribute name, only those whose
    /// attribute has the given value.
    [[nodiscard]] static QList<QDomElement> GetChildNodeList(const QDomElement &parent,
                                                             const QString &name,
                                                             const QString &attribute,
                                                             const QString &value);

    /// The text of the first child element of that name; empty when there is none.
    [[nodiscard]] static QString GetXmlSubNodeString(const QDomElement &parent,
                                                     const QString &name);

    /// All attributes of a node, by name.
    [[nodiscard]] static QMap<QString, QString> GetNodeAttriMap(const QDomNode &node);

    /// Parses XML text. On a failure the place is reported as a debug line and the document is
    /// empty.
    [[nodiscard]] static QDomDocument loadXmlFile(const QString &xml);

    // Regular expressions; the result is always capture group 1.

    [[nodiscard]] static QString RegexString(const QString &text, const QString &pattern);

    /// RegexString() with `arg` put in the place of the pattern's marker.
    [[nodiscard]] static QString RegexString2(const QString &text, const QString &pattern,
                                              const QString &arg);

    /// Capture 1 of every match, in order. The arguments come in the opposite order.
    [[nodiscard]] static QStringList RegexStringList(const QString &pattern, const QString &text);

    // Text and hashing.

    /// The bytes that pairs of hexadecimal digits stand for; empty when a pair is none.
    [[nodiscard]] static QByteArray QStringToHex(const QString &hex);

    /// MD5 of the UTF-8 text as 32 upper-case hexadecimal digits.
    [[nodiscard]] static QString GetMD5String(const QString &text);

    /// The name up to its first dot that one to four word characters follow, unless it begins
    /// with that dot.
    [[nodiscard]] static QString RemoveExtension(const QString &name);

    // Addresses.

    /// The address without its query, up to and including its last "/".
    [[nodiscard]] static QString GetBaseUrl(const QString &url);

    /// Drops ".." parts (only these, not the parts before them) and completes "//host" and "/host"
    /// to an http address. Empty for text that is neither of these nor contains "//".
    [[nodiscard]] static QString NormalizePath(const QString &url);

    /// `relative` resolved against `base`; unchanged when it starts with "http".
    [[nodiscard]] static QString JoinUrl(const QString &base, const QString &relative);

    // Lists of maps.

    /// Whether a map of the list has `value` under `field`. With `isStrict` the types must be
    /// equal too; otherwise the texts are compared.
    [[nodiscard]] static bool in_array_field(const QVariant &list, const QString &field,
                                             const QVariant &value, bool isStrict);

    /// What the first map found by in_array_field()'s rule has under `otherField`; invalid when
    /// there is none.
    [[nodiscard]] static QVariant value_in_array_field(const QVariant &list, const QString &field,
                                                       const QString &otherField,
                                                       const QVariant &value, bool isStrict);
};

#endif
