#include "TestMain.h"

#include <QFile>
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
#include <cstdio>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// The application keeps references to these for its whole life and reads them at every call of
// arguments(), which is what lets one test process play many command lines.
constexpr int maxArguments = 64;
int currentCount = 1;
std::array<char *, maxArguments + 1> currentValues{};
std::array<QByteArray, maxArguments> storage;

/// What a test prints, once more, in memory. What keeps only the end of a long output shall keep
/// what failed, so that is said again there.
class Transcript final
{
public:
    Transcript()
    {
        const int fd = ::memfd_create("transcript", MFD_CLOEXEC);
        if (fd >= 0 && !m_file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
            ::close(fd);
    }

    /// The words by which a test program writes it, too.
    [[nodiscard]] QStringList arguments() const
    {
        if (!m_file.isOpen())
            return {};
        return {QStringLiteral("-o"), QStringLiteral("-,txt"), QStringLiteral("-o"),
                QStringLiteral("/proc/self/fd/%1,txt").arg(m_file.handle())};
    }

    void printFailures()
    {
        bool isFailure = false;
        while (!m_file.atEnd()) {
            const QByteArray line = m_file.readLine();
            if (!line.startsWith(' '))
                isFailure = line.startsWith("FAIL!") || line.startsWith("XPASS");
            if (isFailure)
                std::fputs(line.constData(), stdout);
        }
        std::fflush(stdout);
    }

private:
    QFile m_file;
};

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
    QStringList words;
    for (int i = 0; i < argc; ++i)
        words += QString::fromLocal8Bit(argv[i]);
    Transcript transcript;
    if (!words.contains(QStringLiteral("-o")))
        words += transcript.arguments();
    const int failures = QTest::qExec(test.get(), words);
    if (failures != 0)
        transcript.printFailures();
    return failures;
}
