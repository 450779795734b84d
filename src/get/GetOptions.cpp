#include "GetOptions.h"

#include "SafeText.h"

#include <QCommandLineParser>
#include <QRegularExpression>
#include <QUrl>

#include <limits>

namespace {

constexpr int mostNumber = std::numeric_limits<int>::max();

/// An option as people see it. The parser, the help text and the tests of the papers share them.
struct Row
{
    const char *names;
    const char *value; ///< empty for a switch
    const char *text;
};

constexpr Row rows[] = {
    {"o output", "TEMPLATE",
     "name of the files, of {title} {host} {date} {height} {ext} {id} ({title}.{ext})"},
    {"d directory", "DIR", "folder of the files (the working folder)"},
    {"i input", "FILE", "take addresses from a list, too, one a line; - is standard input"},
    {"j jobs", "N", "pages at once (4)"},
    {"per-host", "N", "pages of one host at once (2)"},
    {"archive", "FILE", "skip pages that are in this list, and add those that have arrived"},
    {"retries", "N", "further attempts at what breaks off (3)"},
    {"quality", "HEIGHT", "preferred height of the picture, such as 720"},
    {"format", "FORMAT", "preferred format: any, mp4 or flv (any)"},
    {"language", "TAG", "preferred language of the sound, such as en"},
    {"connections", "N", "connections for one video (8)"},
    {"proxy", "URL", "socks5://HOST:PORT or http://HOST:PORT"},
    {"cookies", "FILE", "a cookies.txt of a browser, which stays as it is"},
    {"thumb", "", "fetch the picture of each page, too"},
    {"timeout", "SECONDS", "limit of the search in a page (120)"},
    {"stall", "SECONDS", "give up what brings nothing for so long (60)"},
    {"deadline", "SECONDS", "limit of a page in all (43200); 0 for none"},
    {"simulate", "", "only tell what would be fetched"},
    {"report", "FILE", "write a page about all that was done (HTML)"},
    {"json", "", "tell what happens as JSON lines, and nothing else"},
    {"q quiet", "", "tell of failures only"},
    {"h help", "", "print this text"},
    {"v version", "", "print the version"},
};

QStringList namesOf(const Row &row)
{
    return QString::fromLatin1(row.names).split(QLatin1Char(' '));
}

/// Reads values; the first that is wrong is complained about.
class Values final
{
public:
    explicit Values(const QCommandLineParser &parser)
        : m_parser(parser)
    {
    }

    void number(const QString &name, int least, int most, int *number)
    {
        if (!m_parser.isSet(name))
            return;
        bool isNumber = false;
        const int value = m_parser.value(name).toInt(&isNumber);
        if (isNumber && value >= least && value <= most)
            *number = value;
        else
            complain(name,
                     QStringLiteral("it must be a number from %1").arg(least)
                         + (most < mostNumber ? QStringLiteral(" to %1").arg(most) : QString()));
    }

    void text(const QString &name, QString *text)
    {
        if (!m_parser.isSet(name))
            return;
        *text = m_parser.value(name);
        if (text->isEmpty() || text->contains(QChar::ReplacementCharacter))
            complain(name, QStringLiteral("it must be a text in UTF-8, and not empty"));
    }

    void complain(const QString &name, const QString &reason)
    {
        if (m_complaint.isEmpty())
            m_complaint = QStringLiteral("--%1: %2").arg(name, reason);
    }

    [[nodiscard]] QString complaint() const { return m_complaint; }

private:
    const QCommandLineParser &m_parser;
    QString m_complaint;
};

int formatOf(const QString &word)
{
    const QStringList words{QStringLiteral("any"), QStringLiteral("flv"), QStringLiteral("mp4")};
    return words.indexOf(word.toLower());
}

/// "socks5://host:port" as the run writes it; empty for anything else.
QString proxyOf(const QString &text)
{
    static const QRegularExpression asRunsWriteIt(QStringLiteral("^[13]:[^:/@]+:[0-9]{1,5}$"));
    if (asRunsWriteIt.match(text).hasMatch())
        return text;
    const QUrl url(text, QUrl::StrictMode);
    const bool isSocks = url.scheme() == QLatin1String("socks5");
    const bool isHttp = url.scheme() == QLatin1String("http");
    const bool isBare = url.userInfo().isEmpty() && url.path().length() <= 1 && !url.hasQuery();
    // A numeric address of IPv6 has colons, which the run takes for the port's.
    if (!(isSocks || isHttp) || !isBare || url.port() <= 0 || url.host().isEmpty()
        || url.host().contains(QLatin1Char(':')))
        return {};
    return QStringLiteral("%1:%2:%3").arg(isSocks ? 1 : 3).arg(url.host()).arg(url.port());
}

void readNumbers(Values &values, GetOptions &options)
{
    constexpr int mostJobs = 64;
    constexpr int mostRetries = 1000;
    constexpr int mostConnections = 32;
    values.number(QStringLiteral("jobs"), 1, mostJobs, &options.jobs);
    values.number(QStringLiteral("per-host"), 1, mostJobs, &options.perHost);
    values.number(QStringLiteral("retries"), 0, mostRetries, &options.retries);
    values.number(QStringLiteral("connections"), 1, mostConnections, &options.connections);
    values.number(QStringLiteral("quality"), 1, mostNumber, &options.quality);
    values.number(QStringLiteral("timeout"), 1, mostNumber, &options.timeoutS);
    values.number(QStringLiteral("stall"), 1, mostNumber, &options.stallS);
    values.number(QStringLiteral("deadline"), 0, mostNumber, &options.deadlineS);
}

void readTexts(const QCommandLineParser &parser, Values &values, GetOptions &options)
{
    values.text(QStringLiteral("directory"), &options.folder);
    values.text(QStringLiteral("archive"), &options.archive);
    values.text(QStringLiteral("cookies"), &options.cookies);
    values.text(QStringLiteral("report"), &options.report);
    if (parser.isSet(QStringLiteral("output"))) {
        QString reason;
        const auto name = NameTemplate::parse(parser.value(QStringLiteral("output")), &reason);
        if (name)
            options.name = *name;
        else
            values.complain(QStringLiteral("output"), reason);
    }
    if (parser.isSet(QStringLiteral("format"))) {
        options.format = formatOf(parser.value(QStringLiteral("format")));
        if (options.format < 0)
            values.complain(QStringLiteral("format"), QStringLiteral("it must be any, mp4 or flv"));
    }
    if (parser.isSet(QStringLiteral("language"))) {
        static const QRegularExpression tag(QStringLiteral("^[A-Za-z0-9]+(-[A-Za-z0-9]+)*$"));
        options.language = parser.value(QStringLiteral("language"));
        if (!tag.match(options.language).hasMatch())
            values.complain(QStringLiteral("language"),
                            QStringLiteral("it must be a tag, such as en"));
    }
    if (parser.isSet(QStringLiteral("proxy"))) {
        options.proxy = proxyOf(parser.value(QStringLiteral("proxy")));
        if (options.proxy.isEmpty())
            values.complain(QStringLiteral("proxy"),
                            QStringLiteral("it must be socks5://HOST:PORT or http://HOST:PORT"));
    }
}

GetOptions complaining(const QString &complaint)
{
    GetOptions options;
    options.wish = GetOptions::Wish::Complain;
    options.complaint = SafeText::line(complaint);
    return options;
}

} // namespace

GetOptions GetOptions::parse(const QStringList &arguments)
{
    QCommandLineParser parser;
    for (const Row &row : rows)
        parser.addOption({namesOf(row), QString(), QString::fromLatin1(row.value)});
    if (!parser.parse(QStringList{QString()} + arguments))
        return complaining(parser.errorText());
    GetOptions options;
    if (parser.isSet(QStringLiteral("help")))
        options.wish = Wish::ShowHelp;
    else if (parser.isSet(QStringLiteral("version")))
        options.wish = Wish::ShowVersion;
    if (options.wish != Wish::Fetch)
        return options;

    Values values(parser);
    readNumbers(values, options);
    readTexts(parser, values, options);
    if (!values.complaint().isEmpty())
        return complaining(values.complaint());
    options.addresses = parser.positionalArguments();
    options.lists = parser.values(QStringLiteral("input"));
    options.wantsThumb = parser.isSet(QStringLiteral("thumb"));
    options.tellsJson = parser.isSet(QStringLiteral("json"));
    options.isQuiet = parser.isSet(QStringLiteral("quiet"));
    options.isSimulation = parser.isSet(QStringLiteral("simulate"));
    return options;
}

QString GetOptions::helpText()
{
    constexpr int column = 28;
    QString text = QStringLiteral("Usage: clipweir-get [option ...] ADDRESS ...\n"
                                  "Fetches the videos that web pages play.\n\n");
    for (const Row &row : rows) {
        QStringList names = namesOf(row);
        for (QString &name : names)
            name.prepend(name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--"));
        QString head = (names.size() == 1 ? QStringLiteral("      ") : QStringLiteral("  "))
            + names.join(QStringLiteral(", "));
        if (*row.value != '\0')
            head += QLatin1Char(' ') + QLatin1String(row.value);
        text += head.leftJustified(column) + QLatin1String(row.text) + QLatin1Char('\n');
    }
    return text
        + QStringLiteral(
               "\nExit status: 0 when every video arrived; clipweir-get(1) has the others.\n");
}
