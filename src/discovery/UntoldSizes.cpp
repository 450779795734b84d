#include "UntoldSizes.h"

void UntoldSizes::add(const QString &address)
{
    m_addresses += address;
}

void UntoldSizes::askFor(ParseData &record, const SizeProbe &probe,
                         const std::function<bool()> &isStopped)
{
    const QSet<QString> addresses = m_addresses; // more may come during a wait
    for (const QString &address : addresses) {
        const qint64 size = isStopped() || !record.contains(address) ? 0 : probe.sizeOf(address);
        if (size <= 0)
            continue;
        record.get(address)->nSize = size;
        m_addresses -= address;
    }
}

void UntoldSizes::forgetIn(ParseData &record) const
{
    for (const QString &address : m_addresses) {
        if (VideoFile *const file = record.get(address))
            file->nSize = 0;
    }
}
