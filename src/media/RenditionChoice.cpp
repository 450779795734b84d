#include "RenditionChoice.h"

#include <functional>

namespace {

constexpr int farthestHeight = 10000; // pixels; one that far from the wish is no match

/// The index of the best one that is accepted: of the highest bandwidth, then the first; or -1.
int bestOf(const QVector<Rendition> &offered, const std::function<bool(const Rendition &)> &accepts)
{
    int best = -1;
    for (int i = 0; i < offered.size(); ++i) {
        if (accepts(offered.at(i))
            && (best < 0 || offered.at(i).bandwidth > offered.at(best).bandwidth))
            best = i;
    }
    return best;
}

/// The height that the picture shall have; 0 when none is known.
int chosenHeight(const QVector<Rendition> &offered, int wantedHeight)
{
    int nearest = 0;
    qint64 bestDistance = farthestHeight;
    int highest = 0;
    for (const Rendition &one : offered) {
        if (one.kind != Rendition::Kind::Picture || one.height <= 0)
            continue;
        highest = qMax(highest, one.height);
        const qint64 distance = qAbs(qint64(wantedHeight) - one.height);
        if (distance < bestDistance) {
            nearest = one.height;
            bestDistance = distance;
        }
    }
    return wantedHeight > 0 && nearest > 0 ? nearest : highest;
}

bool isSameLanguage(const QString &one, const QString &other)
{
    return one.compare(other, Qt::CaseInsensitive) == 0;
}

/// Whether a language is a special form of another one: "en-GB" of "en".
bool isFormOf(const QString &language, const QString &wanted)
{
    return language.size() > wanted.size() && language.at(wanted.size()) == QLatin1Char('-')
        && language.startsWith(wanted, Qt::CaseInsensitive);
}

} // namespace

int RenditionChoice::picture(const QVector<Rendition> &offered, int wantedHeight)
{
    const int height = chosenHeight(offered, wantedHeight);
    return bestOf(offered, [height](const Rendition &one) {
        return one.kind == Rendition::Kind::Picture && qMax(0, one.height) == height;
    });
}

int RenditionChoice::sound(const QVector<Rendition> &offered, const QString &wantedLanguage)
{
    const auto isSound = [](const Rendition &one) { return one.kind == Rendition::Kind::Sound; };
    if (!wantedLanguage.isEmpty()) {
        const int same = bestOf(offered, [&](const Rendition &one) {
            return isSound(one) && isSameLanguage(one.language, wantedLanguage);
        });
        if (same >= 0)
            return same;
        const int form = bestOf(offered, [&](const Rendition &one) {
            return isSound(one) && isFormOf(one.language, wantedLanguage);
        });
        if (form >= 0)
            return form;
    }
    const int usual =
        bestOf(offered, [&](const Rendition &one) { return isSound(one) && one.isDefault; });
    if (usual >= 0)
        return usual;
    for (const Rendition &first : offered) {
        if (isSound(first))
            return bestOf(offered, [&](const Rendition &one) {
                return isSound(one) && isSameLanguage(one.language, first.language);
            });
    }
    return -1;
}
