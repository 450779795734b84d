// The least that a program with widgets does: what its start costs.

#include <QApplication>

int main(int argc, char *argv[])
{
    const QApplication application(argc, argv);
    return 0;
}
