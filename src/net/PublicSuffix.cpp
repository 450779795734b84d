#include "PublicSuffix.h"

#include <QUrl>

#include <libpsl.h>

namespace {

/// Read once and never given back: threads may ask for as long as the process lives.
const psl_ctx_t *list()
{
    static const psl_ctx_t *const list = ::psl_latest(nullptr);
    return list;
}

} // namespace

bool PublicSuffix::isOne(const QString &domain)
{
    QByteArray name = QUrl::toAce(domain);
    if (name.isEmpty())
        name = domain.toUtf8(); // what has no such form may still end like a name that has
    return ::psl_is_public_suffix2(list(), name.constData(), PSL_TYPE_ANY) != 0;
}
