#include "PageScript.h"

#include <QFile>

QString PageScript::text(const char *name)
{
    Q_INIT_RESOURCE(chromium_scripts); // which a static library does not do by itself
    QFile file(QLatin1String(":/chromium/") + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("the script %s is not built in", name);
    return QString::fromUtf8(file.readAll());
}
