#include "PageHand.h"

#include "PageScript.h"

#include <QJsonObject>

namespace {

constexpr int quietMs = 1200;
constexpr int maxSteps = 3;

} // namespace

PageHand::PageHand(DevTools &tools, FrameReader &reader, QObject *parent)
    : QObject(parent)
    , m_tools(tools)
    , m_reader(reader)
{
    m_quiet.setSingleShot(true);
    m_quiet.setInterval(quietMs);
    connect(&m_quiet, &QTimer::timeout, this, &PageHand::step);
}

void PageHand::begin(const std::function<bool()> &isNeeded)
{
    m_isNeeded = isNeeded;
    m_quiet.start();
}

void PageHand::wait()
{
    if (m_quiet.isActive())
        m_quiet.start();
}

void PageHand::stop()
{
    m_quiet.stop();
    m_isNeeded = nullptr;
}

void PageHand::step()
{
    if (m_isBusy || m_steps >= maxSteps || !m_isNeeded || !m_isNeeded())
        return;
    m_isBusy = true;
    const QString call = QStringLiteral("(%1)(%2)")
                             .arg(PageScript::text("hand.js"),
                                  m_hasScrolled ? QStringLiteral("false") : QStringLiteral("true"));
    m_reader.evaluate(call, [this](const QJsonValue &deed) {
        m_isBusy = false;
        if (m_isNeeded)
            take(deed.toObject());
    });
}

/// @param deed what was found to do, and has been done unless it has a place to press
void PageHand::take(const QJsonObject &deed)
{
    const QString what = deed.value(QLatin1String("what")).toString();
    if (what.isEmpty())
        return;
    qWarning("the page waits for a visitor: %s", qUtf8Printable(what));
    if (deed.value(QLatin1String("isScroll")).toBool())
        m_hasScrolled = true;
    else
        ++m_steps;
    if (deed.contains(QLatin1String("x")))
        press(deed.value(QLatin1String("x")).toDouble(), deed.value(QLatin1String("y")).toDouble());
    m_quiet.start();
}

void PageHand::press(double x, double y)
{
    for (const char *const type : {"mouseMoved", "mousePressed", "mouseReleased"}) {
        QJsonObject event{{QStringLiteral("type"), QLatin1String(type)},
                          {QStringLiteral("x"), x},
                          {QStringLiteral("y"), y}};
        if (qstrcmp(type, "mouseMoved") != 0) {
            event.insert(QStringLiteral("button"), QStringLiteral("left"));
            event.insert(QStringLiteral("clickCount"), 1);
        }
        m_tools.call(QStringLiteral("Input.dispatchMouseEvent"), event, m_session);
    }
}
