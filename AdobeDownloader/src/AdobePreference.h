#ifndef ADOBEPREFERENCE_H
#define ADOBEPREFERENCE_H

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <mutex>

/// The options of the HDS downloader, by key. One map for the process; every function is safe on
/// any thread.
class CAdobePreference final
{
public:
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
    CAdobePreference();
    ~CAdobePreference() = default;
    Q_DISABLE_COPY(CAdobePreference)

    bool setProxy(const QString &value);

    mutable std::mutex m_mutex; // guards m_options; standard, so that thread analysers see it
    QMap<QString, QVariant> m_options;
};

#endif
