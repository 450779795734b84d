#ifndef ADOBEPREFERENCE_H
#define ADOBEPREFERENCE_H

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <mutex>

/// The options of an HDS download, by key. Every function is safe on any thread.
class CAdobePreference final
{
public:
    /// The default options.
    CAdobePreference();

    /// Those of the process, for downloads that are given none of their own.
    static CAdobePreference *GetInstance();

    /// The stored value. A key that was never set is created with an invalid value, which reads as
    /// 0, false or "".
    QVariant GetOption(const QString &key);

    /// Whether the key is there: it has a default, was set, or was asked for.
    [[nodiscard]] bool HasOption(const QString &key) const;

    /// Stores or replaces a value under any key.
    void SetOption(const QString &key, const QVariant &value);

    /// Takes options from an argument list. The first item is the program's place and never looked
    /// at; "--name value" stores the value as text, "--name" alone stores true, and "--proxy
    /// type:host:port" sets the three proxy options. Anything else is skipped.
    void parseParams(const QStringList &args);

    /// Puts all options back to their defaults and forgets all other keys.
    void Reset();

private:
    Q_DISABLE_COPY(CAdobePreference)

    bool setProxy(const QString &value);

    mutable std::mutex m_mutex; // guards m_options; standard, so that thread analysers see it
    QMap<QString, QVariant> m_options;
};

#endif
