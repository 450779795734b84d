#ifndef NETWORKFAULTS_H
#define NETWORKFAULTS_H

#include "ScriptedServer.h"

#include <vector>

/// One way in which a server fails.
struct NetworkFault
{
    /// Sends a good answer with the fault.
    using Sender = std::function<void(QTcpSocket *, const HttpRequest &, const HttpReply &good)>;

    const char *name;
    Sender send;
    bool isEndless = false; ///< goes on sending as long as somebody reads
    bool isSilent = false; ///< keeps the connection and sends nothing more
};

/// All of them. Positions in a body are meant for one of 70,000 bytes and more.
const std::vector<NetworkFault> &networkFaults();

#endif
