#include "PageList.h"

#include "SafeText.h"

#include <QIODevice>
#include <QUrl>

namespace {

constexpr int mostLineBytes = 64 * 1024;
constexpr int mostPages = 1000000;

/// The line without its comment and the white space around it.
QString contentOf(const QString &line)
{
    if (line.trimmed().startsWith(QLatin1Char('#')))
        return {};
    // An address holds no white space; a "#" within it leads to a place in the page.
    QString content = line.trimmed();
    for (int i = 1; i < content.size(); ++i) {
        if (content.at(i) == QLatin1Char('#') && content.at(i - 1).isSpace())
            return content.left(i).trimmed();
    }
    return content;
}

} // namespace

bool PageList::add(const QString &address)
{
    const QString whole =
        address.contains(QLatin1String("://")) ? address : QLatin1String("https://") + address;
    const QUrl url(whole, QUrl::StrictMode);
    const bool isWeb =
        url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
    const bool isText = !whole.contains(QChar::ReplacementCharacter);
    if (!isText || !url.isValid() || !isWeb || url.host().isEmpty()
        || whole != SafeText::line(whole, mostLineBytes)) {
        m_reason =
            QStringLiteral("\"%1\" is no address of a web page").arg(SafeText::line(address, 200));
        return false;
    }
    if (m_known.contains(whole))
        return true;
    if (m_addresses.size() >= mostPages) {
        m_reason = QStringLiteral("these are more than %1 pages").arg(mostPages);
        return false;
    }
    m_known.insert(whole);
    m_addresses += whole;
    return true;
}

bool PageList::addList(QIODevice &list)
{
    for (int number = 1;; ++number) {
        QByteArray line = list.readLine(mostLineBytes + 1);
        if (line.isEmpty())
            break;
        if (number == 1 && line.startsWith("\xef\xbb\xbf"))
            line.remove(0, 3);
        const bool isTooLong = line.size() >= mostLineBytes;
        const QString content = isTooLong ? QString() : contentOf(QString::fromUtf8(line));
        if (isTooLong || (!content.isEmpty() && !add(content))) {
            if (isTooLong)
                m_reason = QStringLiteral("it is too long");
            m_reason = QStringLiteral("line %1: %2").arg(number).arg(m_reason);
            return false;
        }
    }
    return true;
}
