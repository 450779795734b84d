#ifndef PUBLICSUFFIX_H
#define PUBLICSUFFIX_H

#include <QString>

/// Domains below which unrelated people have their hosts, so that no cookie may be for all of them.
/// By the system's list, which it keeps up to date, or one that came with its reader where that is
/// newer; the toolkit's is as old as the toolkit. Safe on any thread.
class PublicSuffix final
{
public:
    PublicSuffix() = delete;

    /// Whether that is all that a domain, without dots around it, is: a registry's ("co.uk"), that
    /// of a firm that gives names away ("github.io"), as browsers have it, or a single label that
    /// nobody has registered.
    [[nodiscard]] static bool isOne(const QString &domain);
};

#endif
