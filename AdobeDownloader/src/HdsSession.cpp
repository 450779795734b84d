#include "HdsSession.h"

const std::shared_ptr<HdsSession> &HdsSession::ofProcess()
{
    static const auto session = std::make_shared<HdsSession>();
    return session;
}
