// Downloads one address to a file as a page run does, without the page, with the options of a run:
// what the transfer alone costs, with several connections, sums and events where they are asked
// for.
//
// usage: filetransfer address path size [clipweir option ...]
// Exit code 0 when all of it has come.

#include "EventStream.h"
#include "RunOptions.h"
#include "RunTransfers.h"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

int main(int argc, char *argv[])
{
    EventStream::openIfWanted(argc, argv);
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 4) {
        std::fputs("usage: filetransfer address path size [clipweir option ...]\n", stderr);
        return 2;
    }
    RunTransfers transfers(RunOptions::ofCommandLine());
    QObject::connect(&transfers, &RunTransfers::fileEnded, &transfers, [&transfers] {
        const bool isComplete = transfers.videoReport().runClass == RunClass::Complete;
        QCoreApplication::exit(isComplete ? 0 : 1);
    });
    // From inside the loop: a download that ends at once would leave it running for ever.
    QTimer::singleShot(0, &transfers, [&transfers, &arguments] {
        transfers.startFile(arguments.at(1), arguments.at(2), arguments.at(3).toLongLong());
    });
    return QCoreApplication::exec();
}
