#ifndef COOKIESTORE_H
#define COOKIESTORE_H

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QNetworkCookie>
#include <QSet>
#include <QString>

#include <mutex>

/// The cookies of this process, shared by all of its jars, and the file that keeps them.
///
/// All functions are safe on any thread. The file has the Netscape cookies.txt format (one cookie
/// a line, seven tab-separated fields); it holds persistent cookies only, is readable by its owner
/// only, and is replaced as a whole. Several processes may share it: a save re-reads it under a
/// lock file and changes only the cookies that this process changed.
class CookieStore final
{
public:
    static CookieStore &instance();

    /// What no two cookies of the store have in common: name, domain and path.
    [[nodiscard]] static QByteArray keyOf(const QNetworkCookie &cookie);

    [[nodiscard]] QList<QNetworkCookie> cookies() const;

    /// Adds a cookie in place of one with the same name, domain and path; an expired cookie only
    /// removes that one. Returns whether the cookie is now in the store.
    bool insert(const QNetworkCookie &cookie);

    /// Removes the cookie with the same name, domain and path. Returns whether there was one.
    bool remove(const QNetworkCookie &cookie);

    /// Takes over what the file holds, unless it is as this process last saw it. Changes that
    /// have not been saved yet win. Returns false when the file cannot be read.
    bool load();

    /// Writes the changes since the last save, if any. Returns false when the file cannot be
    /// written; the changes then stay pending.
    bool save();

    /// The file: the environment variable CLIPWEIR_COOKIES, or "clipweir/cookies.txt" below the
    /// user's data folder.
    [[nodiscard]] static QString filePath();

    /// Forgets all cookies and pending changes; the file stays.
    void clear();

private:
    CookieStore() = default;
    ~CookieStore() = default;
    Q_DISABLE_COPY(CookieStore)

    struct FileStamp
    {
        QDateTime modified;
        qint64 sizeBytes = -1;
        bool operator==(const FileStamp &other) const
        {
            return modified == other.modified && sizeBytes == other.sizeBytes;
        }
    };

    static FileStamp stampOf(const QString &path);
    bool writeFile(const QString &path, const QList<QNetworkCookie> &current,
                   const QSet<QByteArray> &changedKeys);

    mutable std::mutex m_mutex; // guards all members below; standard, for thread analysers
    QList<QNetworkCookie> m_cookies;
    QSet<QByteArray> m_changedKeys;
    FileStamp m_seenStamp;
};

#endif
