// Downloads one stream of HLS or DASH to the file "out.mp4" of a folder, without a page.
//
// usage: streamdownload manifest-address folder [--continue]
// Exit code 0 when the file is complete.

#include "DashPresentation.h"
#include "HlsPresentation.h"
#include "ManifestAddress.h"
#include "MediaLibrary.h"
#include "MediaWriter.h"
#include "TracksTransfer.h"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 3) {
        std::fputs("usage: streamdownload manifest-address folder [--continue]\n", stderr);
        return 2;
    }
    MediaLibrary::use(MediaWriter::make);
    const MediaServers servers;
    const Presentation::Wish wish{QUrl(arguments.at(1)), 0, QString()};
    std::unique_ptr<Presentation> presentation;
    if (ManifestAddress::kindOfAddress(arguments.at(1)) == ManifestAddress::Kind::Dash)
        presentation = std::make_unique<DashPresentation>(wish, servers);
    else
        presentation = std::make_unique<HlsPresentation>(wish, servers);
    TracksTransfer::Wish target;
    target.target = {arguments.at(2), QStringLiteral("out"), true};
    if (arguments.contains(QStringLiteral("--continue")))
        target.cacheFolder = arguments.at(2) + QLatin1String("/cache");
    target.isStrict = true;
    TracksTransfer transfer(std::move(presentation), arguments.at(1).toUtf8(), target, servers);
    QObject::connect(&transfer, &Transfer::ended, &application, [](Transfer::Outcome outcome) {
        QCoreApplication::exit(outcome == Transfer::Outcome::Succeeded ? 0 : 1);
    });
    QTimer::singleShot(0, &transfer, [&transfer] { transfer.start(); });
    return QCoreApplication::exec();
}
