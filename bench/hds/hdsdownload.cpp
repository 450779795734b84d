// Downloads one HTTP Dynamic Streaming stream to a folder, without a page.
//
// usage: hdsdownload manifest-address folder [--option value ...]
// Exit code 0 when the file is complete.

#include "AdobeDownloader.h"
#include "AdobePreference.h"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 3) {
        std::fputs("usage: hdsdownload manifest-address folder [--option value ...]\n", stderr);
        return 2;
    }
    CAdobePreference::GetInstance()->parseParams(
        QStringList{arguments.at(0), QStringLiteral("--manifest"), arguments.at(1),
                    QStringLiteral("--outDir"), arguments.at(2), QStringLiteral("--outFile"),
                    QStringLiteral("out.flv")}
        + arguments.mid(3));
    CAdobeDownloader downloader;
    QObject::connect(&downloader, &CAdobeDownloader::finished, &application,
                     [](int result) { QCoreApplication::exit(result == 1 ? 0 : 1); });
    QTimer::singleShot(0, &downloader, [&downloader] { downloader.Download(); });
    return QCoreApplication::exec();
}
