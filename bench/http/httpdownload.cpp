// Downloads one address to a file as a page run does, without the page: what the transfer alone
// costs, progress lines included.
//
// usage: httpdownload address path size [clipweir option ...]
// Exit code 0 when the download succeeded.

#include "downloader.h"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 4) {
        std::fputs("usage: httpdownload address path size [clipweir option ...]\n", stderr);
        return 2;
    }
    Downloader downloader;
    QObject::connect(&downloader, &Downloader::finished, &downloader, [](int, int, int result) {
        QCoreApplication::exit(result == Downloader::Succeeded ? 0 : 1);
    });
    // From inside the loop: a download that ends at once would leave it running for ever.
    QTimer::singleShot(0, &downloader, [&downloader, &arguments] {
        downloader.downloadVideo(arguments.at(1), arguments.at(2), arguments.at(3).toLongLong(), 0,
                                 Downloader::Video);
    });
    return QCoreApplication::exec();
}
