#ifndef FILEORIGIN_H
#define FILEORIGIN_H

#include <QByteArray>
#include <QJsonObject>
#include <QString>

class HttpClient;

/// Where the bytes of a file come from, and by what a later answer is known to be of the very same
/// content: validators (RFC 9110, 8.8) and the length.
struct FileOrigin
{
    QString address; ///< without user name and password
    QByteArray etag; ///< strong; empty for none
    QByteArray lastModified; ///< as the server writes it, if that is certain enough; else empty
    qint64 length = -1; ///< in bytes; negative when it is not known

    /// That of an answer to a request for the whole file.
    /// @param url as it was asked for, before any redirect
    [[nodiscard]] static FileOrigin of(const HttpClient &answer, const QString &url);

    /// Whether a part of the content can be told from other content at all.
    [[nodiscard]] bool isProvable() const;

    /// What a request for the rest says as "If-Range".
    [[nodiscard]] QByteArray condition() const;

    /// Whether an answer brings this very content, from that byte on.
    [[nodiscard]] bool agreesWith(const HttpClient &answer, qint64 firstByte) const;

    [[nodiscard]] QJsonObject toJson() const;

    /// An origin that is not provable comes of anything else.
    [[nodiscard]] static FileOrigin fromJson(const QJsonObject &object);
};

#endif
