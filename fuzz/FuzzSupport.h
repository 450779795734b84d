#ifndef FUZZSUPPORT_H
#define FUZZSUPPORT_H

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <cstddef>
#include <cstdint>

/// The one function of a target; run again and again, each time with other bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/// Says which promise is broken and aborts, so that the input is kept.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition))                                                                          \
            fuzz::fail(#condition, __FILE__, __LINE__);                                            \
    } while (false)

/// What the fuzz targets share.
namespace fuzz {

[[noreturn]] void fail(const char *condition, const char *file, int line);

/// Makes the application object and a folder for files, and keeps messages off standard error: for
/// once, before the first input. Debug messages are the host's lines and go through takeLines().
void prepare();

/// The host's lines since the last call. Each of them is known to be free of control characters.
QStringList takeLines();

/// The path of a file in a folder that goes when the process ends.
QString filePath(const QString &name);

/// Replaces what QCoreApplication::arguments() returns, the program path excepted.
void setArguments(const QStringList &arguments);

/// The input as bytes, without a copy.
QByteArray bytes(const uint8_t *data, size_t size);

/// Bytes as text. QString::fromUtf8() would stop at the first NUL.
QString text(const QByteArray &utf8);

/// The parts of an input that a separator keeps apart; one more than there are separators.
QList<QByteArray> split(const QByteArray &input, const QByteArray &separator);

} // namespace fuzz

#endif
