#include "ShareMemoryManager.h"

#include "HostLine.h"
#include "StopSignals.h"
#include "VideoPreference.h"

#include <QBuffer>
#include <QDataStream>

#include <cstring>

ShareMemoryManager *ShareMemoryManager::GetInstance()
{
    static ShareMemoryManager manager;
    return &manager;
}

ShareMemoryManager::ShareMemoryManager()
    : m_memory(QStringLiteral("SM_%1").arg(CVideoPreference::instance()->GetPageUrlMD5()))
{
    m_exitFlag = CVideoPreference::instance()->GetExitFlag();
}

bool ShareMemoryManager::GetExitFlag()
{
    return (readShareMemData() && m_exitFlag) || StopSignals::areReceived();
}

bool ShareMemoryManager::SetExitFlag(bool exitFlag)
{
    m_exitFlag = exitFlag;
    return writeShareMemData();
}

bool ShareMemoryManager::CreateShareMemData()
{
    DeleteShareMemData();
    return writeShareMemData();
}

void ShareMemoryManager::DeleteShareMemData()
{
    if (!attach())
        return;
    if (m_memory.lock()) {
        std::memset(m_memory.data(), 0, static_cast<size_t>(m_memory.size()));
        m_memory.unlock();
    }
    detach();
    HostLine::sendText(QStringLiteral("detach sharememory"));
}

bool ShareMemoryManager::attach()
{
    return m_memory.isAttached() || m_memory.attach(QSharedMemory::ReadWrite);
}

bool ShareMemoryManager::detach()
{
    return m_memory.isAttached() && m_memory.detach();
}

bool ShareMemoryManager::writeShareMemData()
{
    QBuffer buffer;
    buffer.open(QIODevice::ReadWrite);
    QDataStream stream(&buffer);
    stream << m_exitFlag;

    if (!attach() && !m_memory.create(static_cast<int>(buffer.size()), QSharedMemory::ReadWrite))
        return false;
    if (!m_memory.lock())
        return false;
    std::memcpy(m_memory.data(), buffer.data().constData(),
                static_cast<size_t>(qMin<qint64>(buffer.size(), m_memory.size())));
    return m_memory.unlock();
}

bool ShareMemoryManager::readShareMemData()
{
    if (!attach() || !m_memory.lock())
        return false;
    QByteArray content(static_cast<const char *>(m_memory.constData()), m_memory.size());
    m_memory.unlock();

    QBuffer buffer(&content);
    buffer.open(QIODevice::ReadOnly);
    QDataStream stream(&buffer);
    stream >> m_exitFlag;
    return true;
}
