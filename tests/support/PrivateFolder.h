#ifndef PRIVATEFOLDER_H
#define PRIVATEFOLDER_H

#include <QStringList>
#include <QTemporaryDir>

/// A folder of files that nobody may read: it sees every open, by any process.
class PrivateFolder final
{
public:
    PrivateFolder();
    ~PrivateFolder();
    Q_DISABLE_COPY(PrivateFolder)

    /// The "file:" address of a file, which is made if it is not there.
    [[nodiscard]] QString address(const QString &name);

    /// The names of the files that were opened since the last call, in order, each once. The folder
    /// itself is named ".".
    [[nodiscard]] QStringList opened();

    /// What the files hold.
    [[nodiscard]] static QByteArray secret();

private:
    QTemporaryDir m_folder;
    int m_watch = -1;
};

#endif
