#include "DisplayProbe.h"
#include "TestMain.h"

namespace {

/// The answers have to be had before there is an application object.
bool canStartHidden = false;
bool canStartOnNothing = true;
bool canStartOnADeadDisplay = true;

bool isUsableOn(const char *platform, int argc, char *argv[])
{
    const QByteArray before = qgetenv("QT_QPA_PLATFORM");
    qputenv("QT_QPA_PLATFORM", platform);
    const bool isUsable = DisplayProbe::isUsable(argc, argv);
    qputenv("QT_QPA_PLATFORM", before);
    return isUsable;
}

} // namespace

class tst_DisplayProbe : public QObject
{
    Q_OBJECT

private slots:
    void tellsWhetherTheToolkitCanStart()
    {
        QVERIFY(canStartHidden);
        QVERIFY(!canStartOnNothing);
        QVERIFY(!canStartOnADeadDisplay);
    }
};

int main(int argc, char *argv[])
{
    canStartHidden = isUsableOn("offscreen", argc, argv);
    canStartOnNothing = isUsableOn("no-such-platform", argc, argv);
    qputenv("DISPLAY", ":4711");
    canStartOnADeadDisplay = isUsableOn("xcb", argc, argv);
    return runTest([] { return std::make_unique<tst_DisplayProbe>(); }, argc, argv);
}

#include "tst_displayprobe.moc"
