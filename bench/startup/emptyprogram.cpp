// The least that a program with the application object of the engines does: what its start costs.

#ifdef CLIPWEIR_WEBKIT
#include <QApplication>
using Application = QApplication;
#else
#include <QGuiApplication>
using Application = QGuiApplication;
#endif

int main(int argc, char *argv[])
{
    const Application application(argc, argv);
    return 0;
}
