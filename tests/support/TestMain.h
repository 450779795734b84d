#ifndef TESTMAIN_H
#define TESTMAIN_H

#include <QStringList>
#include <QtTest>

/// Replaces what QCoreApplication::arguments() returns, the program path excepted.
void setArguments(const QStringList &arguments);

/// Runs a test object inside a widget application whose argument list setArguments() can change.
int runTest(QObject &test, int argc, char *argv[]);

#define CLIPWEIR_TEST_MAIN(TestClass)                                                              \
    int main(int argc, char *argv[])                                                               \
    {                                                                                              \
        TestClass test;                                                                            \
        return runTest(test, argc, argv);                                                          \
    }

#endif
