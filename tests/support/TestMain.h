#ifndef TESTMAIN_H
#define TESTMAIN_H

#include <QStringList>
#include <QtTest>

#include <functional>
#include <memory>

/// Replaces what QCoreApplication::arguments() returns, the program path excepted.
void setArguments(const QStringList &arguments);

/// setArguments() with the words of a command line; spaces separate them and there are no quotes.
void setCommandLine(const QString &words);

/// Makes a test object inside the kind of application that the engines need, whose argument list
/// setArguments() can change, and runs it.
int runTest(const std::function<std::unique_ptr<QObject>()> &makeTest, int argc, char *argv[]);

#define CLIPWEIR_TEST_MAIN(TestClass)                                                              \
    int main(int argc, char *argv[])                                                               \
    {                                                                                              \
        return runTest([] { return std::make_unique<TestClass>(); }, argc, argv);                  \
    }

#endif
