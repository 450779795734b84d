#include "GetOptions.h"
#include "GetProgram.h"

#include <QCoreApplication>
#include <QTextCodec>

int main(int argc, char *argv[])
{
    // Arguments, names of files and the terminal are in UTF-8, whatever the locale is.
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QCoreApplication application(argc, argv);
    GetProgram program(GetOptions::parse(QCoreApplication::arguments().mid(1)));
    return program.exec();
}
