#include "FuzzSupport.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTextCodec>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

namespace {

constexpr size_t maxArguments = 64;

// The application keeps references to these for its whole life and reads them at every call of
// arguments(), which is what lets one process play many command lines.
int argumentCount = 1;
char programName[] = "fuzz";
std::array<char *, maxArguments + 1> argumentValues{programName};
std::array<QByteArray, maxArguments> argumentTexts;

QStringList lines;

bool isControl(QChar c)
{
    const ushort code = c.unicode();
    return code < 0x20 || (code >= 0x7f && code <= 0x9f) || code == 0x2028 || code == 0x2029;
}

void handleMessage(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtFatalMsg)
        fail(qUtf8Printable(message), __FILE__, __LINE__);
    if (type != QtDebugMsg)
        return;
    FUZZ_CHECK(std::none_of(message.cbegin(), message.cend(), isControl));
    lines += message;
}

QTemporaryDir &folder()
{
    static QTemporaryDir dir;
    return dir;
}

} // namespace

void fail(const char *condition, const char *file, int line)
{
    std::fprintf(stderr, "%s:%d: broken promise: %s\n", file, line, condition);
    std::abort();
}

void prepare()
{
    static const bool isPrepared = [] {
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
        qInstallMessageHandler(handleMessage);
        static QCoreApplication application(argumentCount, argumentValues.data());
        return folder().isValid();
    }();
    FUZZ_CHECK(isPrepared);
    lines.clear();
}

QStringList takeLines()
{
    QStringList taken;
    taken.swap(lines);
    return taken;
}

QString filePath(const QString &name)
{
    return folder().filePath(name);
}

void setArguments(const QStringList &arguments)
{
    const auto count = std::min(static_cast<size_t>(arguments.size()), maxArguments - 1);
    for (size_t i = 1; i <= count; ++i) {
        argumentTexts.at(i) = arguments.at(static_cast<int>(i) - 1).toUtf8();
        argumentValues.at(i) = argumentTexts.at(i).data();
    }
    argumentCount = static_cast<int>(count) + 1;
    argumentValues.at(count + 1) = nullptr;
}

QByteArray bytes(const uint8_t *data, size_t size)
{
    return QByteArray::fromRawData(reinterpret_cast<const char *>(data), static_cast<int>(size));
}

QString text(const QByteArray &utf8)
{
    static const QTextCodec *const codec = QTextCodec::codecForName("UTF-8");
    return codec->toUnicode(utf8);
}

QList<QByteArray> split(const QByteArray &input, const QByteArray &separator)
{
    QList<QByteArray> parts;
    int from = 0;
    for (int at = input.indexOf(separator); at >= 0; at = input.indexOf(separator, from)) {
        parts += input.mid(from, at - from);
        from = at + separator.size();
    }
    return parts << input.mid(from);
}

} // namespace fuzz
