#include "TestMain.h"

#include <QNetworkProxyFactory>
#include <QTextCodec>

#ifdef CLIPWEIR_WEBKIT
#include <QApplication>
using TestApplication = QApplication; // the view of a page is a widget
#else
#include <QGuiApplication>
using TestApplication = QGuiApplication;
#endif

#include <array>

namespace {

// The application keeps references to these for its whole life and reads them at every call of
// arguments(), which is what lets one test process play many command lines.
constexpr int maxArguments = 64;
int currentCount = 1;
std::array<char *, maxArguments + 1> currentValues{};
std::array<QByteArray, maxArguments> storage;

} // namespace

void setArguments(const QStringList &arguments)
{
    Q_ASSERT(arguments.size() < maxArguments);
    currentCount = 1;
    for (const QString &argument : arguments) {
        auto &slot = storage.at(static_cast<size_t>(currentCount));
        slot = argument.toUtf8();
        currentValues.at(static_cast<size_t>(currentCount)) = slot.data();
        ++currentCount;
    }
    currentValues.at(static_cast<size_t>(currentCount)) = nullptr;
}

void setCommandLine(const QString &words)
{
    setArguments(words.split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

int runTest(const std::function<std::unique_ptr<QObject>()> &makeTest, int argc, char *argv[])
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QNetworkProxyFactory::setUseSystemConfiguration(false);
    currentValues[0] = argv[0];
    TestApplication application(currentCount, currentValues.data());
    const std::unique_ptr<QObject> test = makeTest();
    return QTest::qExec(test.get(), argc, argv);
}
