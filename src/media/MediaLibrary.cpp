#include "MediaLibrary.h"

#include <QFile>
#include <QFileInfo>

#include <dlfcn.h>

namespace {

MediaLibrary::Maker loaded = nullptr;

} // namespace

QString MediaLibrary::path()
{
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalPath()
        + QLatin1String("/" CLIPWEIR_MEDIA_MODULE);
}

void MediaLibrary::use(Maker maker)
{
    loaded = maker;
}

bool MediaLibrary::load()
{
    if (loaded)
        return true;
    void *const module = ::dlopen(QFile::encodeName(path()).constData(), RTLD_LAZY);
    void *const entry = module ? ::dlsym(module, "mediaJoinerMaker") : nullptr;
    if (entry)
        loaded = reinterpret_cast<decltype(&mediaJoinerMaker)>(entry)();
    else
        qWarning("streams cannot be written: %s", ::dlerror());
    return entry;
}

std::unique_ptr<MediaJoiner> MediaLibrary::makeJoiner(const QVector<Rendition> &tracks,
                                                      const MediaJoiner::Open &open)
{
    Q_ASSERT(loaded);
    return loaded(tracks, open);
}
