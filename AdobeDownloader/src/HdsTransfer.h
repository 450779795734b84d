#ifndef HDSTRANSFER_H
#define HDSTRANSFER_H

#include "AdobeDownloader.h"
#include "HdsSession.h"
#include "Transfer.h"
#include "VideoPreference.h"

/// Downloads one HDS stream with options of its own.
///
/// progressed() tells the number of the last fragment written and that of the stream's last one. It
/// is sent often, also while the stream is only waited for, so that a receiver can look whether it
/// is to be cancelled; it may call cancel().
class HdsTransfer final : public Transfer
{
    Q_OBJECT

public:
    struct Wish
    {
        QString pageUrl; ///< the page that plays the stream
        QString manifest; ///< an address; its query goes with every fragment
        ProxySetting proxy;
        QString outFile; ///< a name without folders
        QString outDir;
        int stallS = 0; ///< seconds of silence that end a request; 0 for the usual limit
    };

    explicit HdsTransfer(const Wish &wish, QObject *parent = nullptr);

    /// Tells the host what is wanted, and reads the manifest in nested event loops.
    void start() override;
    void cancel() override;
    [[nodiscard]] TransferReport report(Outcome outcome) const override;

private:
    void setOptions();
    [[nodiscard]] QStringList arguments() const;
    void setOption(const QString &name, const QString &text);

    const Wish m_wish;
    const std::shared_ptr<HdsSession> m_session;
    CAdobeDownloader m_downloader;
    bool m_isStarted = false;
    bool m_isCancelled = false;
};

#endif
