#include "Report.h"

#include "FileKind.h"
#include "HumanText.h"
#include "SafeText.h"

#include <QFileInfo>
#include <QUrl>

namespace {

constexpr qint64 mostPictureBytes = 1024 * 1024;
constexpr int mostAddressLength = 2000;

const char *const head = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; img-src data:; style-src 'unsafe-inline'">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>What clipweir-get fetched</title>
<style>
:root { color-scheme: light dark; --back: #f6f6f4; --card: #fff; --text: #1c1c1a; --dim: #5c5c58; --line: #d4d4ce; --good: #176b2c; --bad: #a8201a; --link: #0b4fa8; }
@media (prefers-color-scheme: dark) { :root { --back: #161615; --card: #222220; --text: #eeeeea; --dim: #b0b0a8; --line: #44443e; --good: #7fd694; --bad: #ff9b94; --link: #8fc1ff; } }
body { margin: 0 auto; padding: 1.5rem; max-width: 70rem; background: var(--back); color: var(--text); font: 1rem/1.5 system-ui, sans-serif; }
ul { display: grid; grid-template-columns: repeat(auto-fill, minmax(min(20rem, 100%), 1fr)); gap: 1rem; margin: 0; padding: 0; list-style: none; }
li { padding: 1rem; border: 1px solid var(--line); border-radius: .5rem; background: var(--card); overflow-wrap: anywhere; }
img { display: block; width: 100%; max-height: 12rem; object-fit: cover; border-radius: .25rem; }
h2 { margin: .5rem 0; font-size: 1.1rem; }
dl { display: grid; grid-template-columns: auto 1fr; gap: 0 .75rem; margin: 0; }
dt { color: var(--dim); }
dd { margin: 0; }
.good { color: var(--good); font-weight: 600; }
.bad { color: var(--bad); font-weight: 600; }
a { color: var(--link); }
a:focus-visible { outline: 3px solid currentColor; outline-offset: 2px; }
</style>
</head>
<body>
<main>
<h1>What clipweir-get fetched</h1>
<ul>
)";

QString row(const QString &name, const QString &html)
{
    return QStringLiteral("<dt>") + name + QStringLiteral("</dt><dd>") + html
        + QStringLiteral("</dd>\n");
}

QString safe(const QString &text)
{
    return SafeText::line(text, mostAddressLength).toHtmlEscaped();
}

/// Addresses of the web alone: others might do something.
QString link(const QString &address)
{
    const QString text = safe(address);
    const QString scheme = QUrl(address).scheme();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
        return text;
    return QStringLiteral("<a href=\"") + text + QStringLiteral("\">") + text
        + QStringLiteral("</a>");
}

QString pictureOf(const PageFacts &page)
{
    const QString kind = FileKind::extensionOf(page.thumbPath, QString());
    if (page.thumbPath.isEmpty() || kind.isEmpty())
        return {};
    QFile file(page.thumbPath);
    if (!file.open(QIODevice::ReadOnly) || file.size() > mostPictureBytes)
        return {};
    const QString type = kind == QLatin1String("jpg") ? QStringLiteral("jpeg") : kind;
    // It is there for the eye alone: the heading says what it shows.
    return QStringLiteral("<img alt=\"\" src=\"data:image/") + type + QStringLiteral(";base64,")
        + QString::fromLatin1(file.read(mostPictureBytes).toBase64()) + QStringLiteral("\">\n");
}

QString outcomeOf(const PageFacts &page)
{
    if (page.isSkipped)
        return QStringLiteral("<span class=\"good\">Skipped</span>: it is in the archive");
    if (page.hasArrived())
        return QStringLiteral("<span class=\"good\">Arrived</span>");
    return QStringLiteral("<span class=\"bad\">Failed</span>: ")
        + HumanText::reasonOf(page).toHtmlEscaped();
}

/// What was chosen, and of what.
QString choiceOf(const PageFacts &page)
{
    QStringList parts;
    if (!page.format.isEmpty())
        parts += safe(page.format);
    if (page.height > 0)
        parts += QStringLiteral("%1p").arg(page.height);
    if (page.announcedBytes > 0)
        parts += HumanText::bytes(page.announcedBytes);
    const QString of = page.candidates == 1
        ? QStringLiteral("the only one that the page has")
        : QStringLiteral("the best for these options of %1 that the page has").arg(page.candidates);
    return parts.join(QLatin1String(", ")) + QLatin1String(" \u2013 ") + of;
}

QString cardOf(const PageFacts &page)
{
    QString html = QStringLiteral("<li>\n<article>\n") + pictureOf(page) + QStringLiteral("<h2>")
        + HumanText::nameOf(page).toHtmlEscaped() + QStringLiteral("</h2>\n<dl>\n");
    html += row(QStringLiteral("Result"), outcomeOf(page))
        + row(QStringLiteral("Page"), link(page.address));
    if (page.hasArrived() && !page.path.isEmpty())
        html +=
            row(QStringLiteral("File"),
                QStringLiteral("<a href=\"")
                    + QUrl::fromLocalFile(page.path).toString(QUrl::FullyEncoded).toHtmlEscaped()
                    + QStringLiteral("\">") + safe(QFileInfo(page.path).fileName())
                    + QStringLiteral("</a>"));
    if (page.bytes >= 0)
        html += row(QStringLiteral("Size"), HumanText::bytes(page.bytes));
    if (page.begunAt.isValid())
        html += row(QStringLiteral("Took"), HumanText::duration(page.tookMs));
    if (page.candidates > 0)
        html += row(QStringLiteral("Chosen"), choiceOf(page))
            + row(QStringLiteral("From"), link(page.videoAddress));
    if (!page.hasArrived() && !page.warning.isEmpty())
        html += row(QStringLiteral("Last warning"), safe(page.warning));
    return html + QStringLiteral("</dl>\n</article>\n</li>\n");
}

} // namespace

Report::Report(const QString &path)
    : m_file(path)
{
}

bool Report::open()
{
    if (!m_file.open(QIODevice::WriteOnly))
        return false;
    write(QString::fromUtf8(head));
    return true;
}

void Report::write(const QString &html)
{
    // A write that fails is told by the last step.
    m_file.write(html.toUtf8());
}

void Report::add(const PageFacts &page)
{
    write(cardOf(page));
}

bool Report::finish(const Summary &summary, qint64 tookMs)
{
    write(QStringLiteral("</ul>\n<p role=\"status\">") + summary.sums(tookMs).toHtmlEscaped()
          + QStringLiteral("</p>\n</main>\n</body>\n</html>\n"));
    return m_file.commit();
}
