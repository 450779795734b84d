#include "Sandbox.h"

#include "CookieStore.h"
#include "Landlock.h"
#include "SyscallFilter.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLibraryInfo>
#include <QStandardPaths>

#include <cstddef>
#include <limits>

#include <fcntl.h>
#include <sys/prctl.h>

namespace {

using Access = Landlock::Access;

// Programs' code and public data; in /etc only what is named, for secrets lie there too.
const char *const systemPaths[] = {
    "/usr", "/lib", "/lib32", "/lib64", "/libx32", "/opt", "/nix/store", "/gnu/store",
    // names and addresses
    "/etc/hosts", "/etc/host.conf", "/etc/resolv.conf", "/etc/nsswitch.conf", "/etc/gai.conf",
    "/etc/services", "/etc/protocols", "/etc/networks", "/etc/passwd", "/etc/group",
    "/run/systemd/resolve", "/run/resolvconf", "/run/NetworkManager/resolv.conf",
    "/run/NetworkManager/no-stub-resolv.conf", "/run/connman",
    // certificates and what goes with them
    "/etc/ssl/certs", "/etc/ssl/cert.pem", "/etc/ssl/openssl.cnf", "/etc/ca-certificates",
    "/etc/pki/tls/certs", "/etc/pki/ca-trust", "/etc/crypto-policies", "/etc/gnutls",
    "/etc/krb5.conf", "/etc/krb5.conf.d",
    // the C library
    "/etc/ld.so.cache", "/etc/ld.so.preload", "/etc/localtime", "/etc/timezone",
    "/etc/locale.alias", "/etc/os-release", "/etc/machine-id", "/var/lib/dbus/machine-id",
    "/proc/cpuinfo", "/proc/meminfo", "/proc/stat", "/proc/version", "/proc/filesystems",
    "/proc/sys/vm/overcommit_memory", "/sys/devices/system/cpu", "/sys/devices/system/node",
    // fonts, the toolkit, the media framework
    "/etc/fonts", "/var/cache/fontconfig", "/etc/xdg", "/etc/mime.types", "/etc/pulse",
    "/etc/asound.conf", "/etc/alsa", "/etc/openal", "/etc/OpenCL", "/etc/libva.conf",
    "/etc/adobe/mms.cfg"};

/// What drawing on a display takes besides.
const char *const displayPaths[] = {"/etc/X11", "/etc/drirc",     "/etc/glvnd",    "/etc/vulkan",
                                    "/etc/egl", "/etc/gtk-2.0",   "/etc/gtk-3.0",  "/etc/dconf",
                                    "/sys/bus", "/sys/class/drm", "/sys/dev/char", "/sys/devices"};

const char *const displayDevices[] = {"/dev/dri", "/dev/nvidiactl", "/dev/nvidia0",
                                      "/dev/nvidia-modeset"};

const char *const plainDevices[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/random",
                                    "/dev/urandom"};

/// Variables by which the user names folders to read: a list with colons, or a single path.
const char *const pathVariables[] = {"LD_LIBRARY_PATH",
                                     "QT_PLUGIN_PATH",
                                     "QT_QPA_PLATFORM_PLUGIN_PATH",
                                     "QT_QPA_FONTDIR",
                                     "MOZ_PLUGIN_PATH",
                                     "QTWEBKIT_PLUGIN_PATH",
                                     "GST_PLUGIN_PATH",
                                     "GST_PLUGIN_PATH_1_0",
                                     "GST_PLUGIN_SYSTEM_PATH",
                                     "GST_PLUGIN_SYSTEM_PATH_1_0",
                                     "XDG_DATA_DIRS",
                                     "XDG_CONFIG_DIRS",
                                     "FONTCONFIG_PATH",
                                     "FONTCONFIG_FILE",
                                     "SSL_CERT_DIR",
                                     "SSL_CERT_FILE",
                                     "OPENSSL_CONF",
                                     "LOCPATH",
                                     "TZDIR"};

/// Below the home folder: fonts and plug-ins that the user installed.
const char *const homePaths[] = {"/.fonts",         "/.fonts.conf",      "/.fonts.conf.d",
                                 "/.gstreamer-1.0", "/.mozilla/plugins", "/.netscape/plugins"};

/// Below the home folder: how it should look on a display.
const char *const homeDisplayPaths[] = {"/.Xauthority", "/.XCompose", "/.icons"};
const char *const configDisplayPaths[] = {"/QtProject.conf", "/Trolltech.conf", "/gtk-3.0",
                                          "/dconf", "/kdeglobals"};

QString inLocation(QStandardPaths::StandardLocation location, const char *sub)
{
    return QStandardPaths::writableLocation(location) + QLatin1String(sub);
}

bool isSameOrBelow(const QString &path, const QString &folder)
{
    const QString prefix = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    return path == folder || path.startsWith(prefix);
}

template <std::size_t count>
void allowAll(Landlock &rules, const char *const (&paths)[count], Access access)
{
    for (const char *const path : paths)
        rules.allow(QString::fromLatin1(path), access);
}

/// The folders that a variable lists.
QStringList listedPaths(const char *variable)
{
    return qEnvironmentVariable(variable).split(QLatin1Char(':'), Qt::SkipEmptyParts);
}

/// The port of a display such as "host:10.0", which is reached over the network; 0 for others.
quint16 portOfDisplay(const QString &display)
{
    constexpr int firstDisplayPort = 6000;
    const int colon = display.lastIndexOf(QLatin1Char(':'));
    bool isNumber = false;
    const int number = display.mid(colon + 1).section(QLatin1Char('.'), 0, 0).toUShort(&isNumber);
    const int port = firstDisplayPort + number;
    const bool isOverNetwork = colon > 0 && !display.startsWith(QLatin1String("unix:"));
    return isOverNetwork && isNumber && port <= std::numeric_limits<quint16>::max()
        ? static_cast<quint16>(port)
        : 0;
}

/// The kernel ties a rule to an entry of the process table only as long as it remembers the entry,
/// so this one stays open.
void keepOwnProcessEntry()
{
    static const int entry = ::open("/proc/self", O_PATH | O_DIRECTORY | O_CLOEXEC);
    Q_UNUSED(entry)
}

/// Other threads would stay outside of the file system's sandbox.
bool hasOtherThreads()
{
#ifdef __SANITIZE_THREAD__
    return false; // the sanitizer runs one of its own from the start
#else
    return QDir(QStringLiteral("/proc/self/task"))
               .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
               .size()
        > 1;
#endif
}

} // namespace

Sandbox::Sandbox(const QString &outputFolder, bool usesDisplay)
    : m_outputFolder(outputFolder)
    , m_usesDisplay(usesDisplay)
{
}

void Sandbox::allowLinkTarget(const QString &path)
{
    if (QFileInfo(path).isSymLink())
        m_linkTargets += path;
}

void Sandbox::allowReading(const QString &path)
{
    if (QFileInfo(path).isFile())
        m_readableFiles += path;
}

void Sandbox::allowSound()
{
    m_mayPlaySound = true;
}

void Sandbox::confineToProxy(quint16 port)
{
    m_ports = {port};
    const quint16 displayPort = m_usesDisplay ? portOfDisplay(qEnvironmentVariable("DISPLAY")) : 0;
    if (displayPort != 0)
        m_ports += displayPort;
}

QStringList Sandbox::confine()
{
    prepareFolders();
    prepareMediaFramework();
    QStringList gaps = wideFolders();
    if (hasOtherThreads())
        gaps += QStringLiteral("threads that run already reach all files");

    Landlock rules;
    addRules(rules);
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        gaps += QStringLiteral("new privileges may be gained");
    const int version = rules.enforce() ? Landlock::offeredVersion() : 0;
    if (version > 0)
        gaps += Landlock::gapsOf(version);
    else
        gaps += QStringLiteral("all files are within reach (no Landlock)");
    if (!m_ports.isEmpty() && !Landlock::confinesConnections(version))
        gaps += QStringLiteral("connections may go round the proxy");
    if (!SyscallFilter::install(m_usesDisplay))
        gaps += QStringLiteral("all system calls may be made (no seccomp)");
    return gaps;
}

/// The caches of the toolkit and of the media framework go to a folder of the run's own, so that
/// no other program reads what a page may have spoilt.
void Sandbox::prepareFolders()
{
    const QString folder = inLocation(QStandardPaths::GenericCacheLocation, "/clipweir");
    if (QDir().mkpath(folder) && QFileInfo(folder).isWritable()) {
        m_cacheFolder = folder;
        qputenv("XDG_CACHE_HOME", QFile::encodeName(folder));
        qunsetenv("GST_REGISTRY");
        qunsetenv("GST_REGISTRY_1_0");
    }
    m_cookieFile = QFileInfo(CookieStore::filePath()).absoluteFilePath();
    QDir().mkpath(QFileInfo(m_cookieFile).path());
}

/// Keeps the media framework and its sound libraries from trying what would be refused, and from
/// complaining about it on standard error.
void Sandbox::prepareMediaFramework() const
{
    qputenv("GST_REGISTRY_FORK", "no"); // looks at new plug-ins itself and starts no program for it
    qputenv("PULSE_LOG_SYSLOG", "1");
    // One sound server is reached through a database outside the sandbox, or else started. The
    // other sink would go there, too.
    QByteArray ranks = qgetenv("GST_PLUGIN_FEATURE_RANK");
    ranks += QByteArray(ranks.isEmpty() ? "" : ",") + "jackaudiosink:NONE,openalsink:NONE";
    qputenv("GST_PLUGIN_FEATURE_RANK", ranks);
}

void Sandbox::addRules(Landlock &rules) const
{
    if (m_usesDisplay)
        rules.allowAbstractSockets(); // a display may be reached through one
    if (!m_ports.isEmpty())
        rules.confineConnections(m_ports);
    rules.allow(m_outputFolder, Access::Write);
    for (const QString &link : m_linkTargets)
        rules.allow(link, Access::Write);
    for (const QString &file : m_readableFiles)
        rules.allow(file, Access::Read);
    if (!m_cacheFolder.isEmpty())
        rules.allow(m_cacheFolder, Access::Write);
    const QFileInfo cookieFile(m_cookieFile);
    const bool isDevice = cookieFile.exists() && !cookieFile.isFile() && !cookieFile.isDir();
    rules.allow(isDevice ? m_cookieFile : cookieFile.path(),
                isDevice ? Access::Device : Access::Write);
    // The stop flag's key files lie there, and go with the run.
    rules.allow(QDir::tempPath(), Access::Remove);

    addSystem(rules);
    addUserFiles(rules);
    if (m_usesDisplay)
        addDisplay(rules);
    if (m_mayPlaySound) {
        rules.allow(QStringLiteral("/dev/snd"), Access::Device);
        rules.allow(inLocation(QStandardPaths::GenericConfigLocation, "/pulse"), Access::Write);
    }
}

void Sandbox::addSystem(Landlock &rules) const
{
    keepOwnProcessEntry();
    rules.allow(QStringLiteral("/proc/self"), Access::Read);
    allowAll(rules, systemPaths, Access::Read);
    allowAll(rules, plainDevices, Access::Device);
    for (const auto location : {QLibraryInfo::PluginsPath, QLibraryInfo::LibrariesPath,
                                QLibraryInfo::DataPath, QLibraryInfo::TranslationsPath})
        rules.allow(QLibraryInfo::location(location), Access::Read);
    rules.allow(QCoreApplication::applicationFilePath(), Access::Read);
}

void Sandbox::addUserFiles(Landlock &rules) const
{
    for (const char *const variable : pathVariables) {
        for (const QString &path : listedPaths(variable))
            rules.allow(path, Access::Read);
    }
#ifdef CLIPWEIR_SANITIZED
    // The sanitizer reads the list of leaks to leave out at the very end.
    const QString listOption = QStringLiteral("suppressions=");
    for (const QString &option : listedPaths("LSAN_OPTIONS")) {
        if (option.startsWith(listOption))
            rules.allow(option.mid(listOption.size()), Access::Read);
    }
#endif
    const QString pluginHome = qEnvironmentVariable("MOZILLA_HOME");
    if (!pluginHome.isEmpty())
        rules.allow(pluginHome + QLatin1String("/plugins"), Access::Read);
    for (const char *const path : homePaths)
        rules.allow(inLocation(QStandardPaths::HomeLocation, path), Access::Read);
    for (const char *const path : {"/fonts", "/gstreamer-1.0/plugins"})
        rules.allow(inLocation(QStandardPaths::GenericDataLocation, path), Access::Read);
    for (const char *const path : {"/fontconfig", "/clipweir.conf"})
        rules.allow(inLocation(QStandardPaths::GenericConfigLocation, path), Access::Read);
    if (m_cacheFolder.isEmpty()) {
        for (const char *const path : {"/fontconfig", "/gstreamer-1.0"})
            rules.allow(inLocation(QStandardPaths::GenericCacheLocation, path), Access::Read);
    }
}

void Sandbox::addDisplay(Landlock &rules) const
{
    allowAll(rules, displayPaths, Access::Read);
    allowAll(rules, displayDevices, Access::Device);
    for (const QString &path : listedPaths("XAUTHORITY"))
        rules.allow(path, Access::Read);
    for (const char *const path : homeDisplayPaths)
        rules.allow(inLocation(QStandardPaths::HomeLocation, path), Access::Read);
    for (const char *const path : configDisplayPaths)
        rules.allow(inLocation(QStandardPaths::GenericConfigLocation, path), Access::Read);
    rules.allow(inLocation(QStandardPaths::GenericDataLocation, "/icons"), Access::Read);
    const QString runtimeFolder = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtimeFolder.isEmpty()) // a desktop's settings library complains when it may not write
        rules.allow(runtimeFolder + QLatin1String("/dconf"), Access::Write);
}

/// Folders of the caller's choice that would open the home folder to the page.
QStringList Sandbox::wideFolders() const
{
    const QString home = QDir(QDir::homePath()).canonicalPath();
    const QString cookieFolder = QFileInfo(m_cookieFile).path();
    QStringList gaps;
    for (const QString &folder : {m_outputFolder, cookieFolder}) {
        const QString realFolder = QDir(folder).canonicalPath();
        if (!home.isEmpty() && !realFolder.isEmpty() && isSameOrBelow(home, realFolder))
            gaps += QStringLiteral("files go to %1, so that all files in it are within reach")
                        .arg(folder);
    }
    gaps.removeDuplicates();
    if (!home.isEmpty() && isSameOrBelow(home, QDir(QDir::tempPath()).canonicalPath()))
        gaps += QStringLiteral("files can be removed below %1").arg(QDir::tempPath());
    return gaps;
}
