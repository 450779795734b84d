// The fragments of a stream, as fetched, and the FLV file that is made of them. The word "NEXT"
// keeps the fragments of an input apart; what comes before the first one is the stream's metadata.
#include "AdobeData.h"
#include "AdobeOutputFile.h"
#include "AdobePreference.h"
#include "FlvTag.h"
#include "FuzzSupport.h"
#include "HdsFixtures.h"

#include <QFile>

#include <algorithm>

namespace {

constexpr int maxFragments = 16;

CAdobeOutputFile *file()
{
    return CAdobeOutputFile::GetInstance();
}

void checkTags(const QByteArray &buffer)
{
    int skipped = 0;
    const QVector<FlvTag> tags = FlvTag::walk(buffer, 0, buffer.size(), skipped);
    FUZZ_CHECK(skipped >= 0);
    qint64 end = 0;
    for (const FlvTag &tag : tags) {
        FUZZ_CHECK(tag.offset >= end && tag.timestampMs >= 0);
        end = qint64(tag.offset) + FlvTag::headerBytes + tag.dataBytes;
        FUZZ_CHECK(end <= buffer.size());
    }
}

void checkFragment(const QByteArray &fragment)
{
    QByteArray repaired = fragment;
    const bool isWhole = CAdobeOutputFile::IsWhole(fragment);
    const bool isVerified = CAdobeOutputFile::VerifyFragment(repaired);
    FUZZ_CHECK(isVerified || !isWhole);
    FUZZ_CHECK(repaired.size() == fragment.size());
    if (isVerified)
        FUZZ_CHECK(CAdobeOutputFile::IsWhole(repaired));
    else
        FUZZ_CHECK(repaired == fragment);
}

/// The file that comes of the fragments when they arrive in the given order of numbers, from 1.
QByteArray assembled(const QList<QByteArray> &fragments, const QList<int> &order)
{
    CAdobePreference::GetInstance()->SetOption(QStringLiteral("outFile"),
                                               QStringLiteral("stream.flv"));
    file()->Begin(1);
    int written = 0;
    for (const int number : order) {
        file()->SetFragContent(number, fragments.at(number - 1));
        const int now = file()->WriteFlvFile();
        FUZZ_CHECK(now >= 0);
        written += now;
    }
    FUZZ_CHECK(written == fragments.size() && file()->HeldBytes() == 0);
    FUZZ_CHECK(file()->GetWriteFragNum() == fragments.size());
    file()->End();
    QFile result(file()->FilePath());
    FUZZ_CHECK(fragments.isEmpty() || result.open(QIODevice::ReadOnly));
    return result.readAll();
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::prepare();
    const QByteArray input = fuzz::bytes(data, size);
    checkTags(input);
    QList<QByteArray> fragments = fuzz::split(input, QByteArrayLiteral("NEXT"));
    const QByteArray metadata = fragments.takeFirst();
    fragments = fragments.mid(0, maxFragments);
    std::for_each(fragments.cbegin(), fragments.cend(), checkFragment);
    if (fragments.isEmpty())
        return 0;

    auto *const preference = CAdobePreference::GetInstance();
    auto *const stream = CAdobeData::GetInstance();
    preference->Reset();
    stream->Reset();
    preference->SetOption(QStringLiteral("outDir"), fuzz::filePath(QString()));
    preference->SetOption(QStringLiteral("metadata"), !metadata.isEmpty());
    stream->SetFragCount(fragments.size());
    stream->SetMedia({{QStringLiteral("metadata"), metadata}});

    QList<int> order;
    for (int number = 1; number <= fragments.size(); ++number)
        order += number;
    const QByteArray flv = assembled(fragments, order);
    QString error;
    const QVector<hds::ReadTag> tags = hds::readFlv(flv, error);
    FUZZ_CHECK(error.isEmpty());
    qint64 payload = metadata.size();
    for (const QByteArray &fragment : qAsConst(fragments))
        payload += fragment.size();
    qint64 taken = 0;
    for (const hds::ReadTag &tag : tags) {
        FUZZ_CHECK(tag.type == FlvTag::Audio || tag.type == FlvTag::Video
                   || tag.type == FlvTag::Script);
        taken += tag.data.size();
    }
    FUZZ_CHECK(taken <= payload);
    FUZZ_CHECK(file()->GetLosses().given == fragments.size());
    FUZZ_CHECK(file()->HasMedia()
               == std::any_of(tags.cbegin(), tags.cend(),
                              [](const hds::ReadTag &tag) { return tag.type != FlvTag::Script; }));

    std::reverse(order.begin(), order.end());
    FUZZ_CHECK(assembled(fragments, order) == flv);
    return 0;
}
