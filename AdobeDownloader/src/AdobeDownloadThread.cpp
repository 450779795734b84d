#include "AdobeDownloadThread.h"

#include "AdobeBrowser.h"
#include "HdsSource.h"

#include <utility>

namespace {

SegmentWorker::Fetch fetchWith(const std::shared_ptr<ConnectionPool> &pool,
                               const std::shared_ptr<HdsSession> &session)
{
    return [pool, session](const Segment &segment, QByteArray buffer, const StopFlag &stop) {
        CAdobeBrowser browser(stop, pool, nullptr, &session->options);
        browser.setMaxContentBytes(SegmentWorker::maxBytes);
        browser.setBuffer(std::move(buffer));
        browser.get(segment.address, true);
        return SegmentWorker::Answer{browser.rawContent(), browser.success(),
                                     browser.isLengthKnown()};
    };
}

} // namespace

CAdobeDownloadThread::CAdobeDownloadThread(const std::shared_ptr<ConnectionPool> &pool,
                                           QObject *parent,
                                           const std::shared_ptr<HdsSession> &session)
    : SegmentWorker(fetchWith(pool, session), parent)
    , m_session(session)
{
    connect(
        this, &SegmentWorker::cancelled, this,
        [this](qint64 number) { emit CancleFragment(static_cast<int>(number)); },
        Qt::DirectConnection);
}

CAdobeDownloadThread::~CAdobeDownloadThread()
{
    end(); // while there is something left to report to
}

void CAdobeDownloadThread::setFragNum(int fragNum)
{
    setSegment(HdsSource::fragment(m_session->data, fragNum));
}
