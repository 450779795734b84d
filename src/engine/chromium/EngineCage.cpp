#include "EngineCage.h"

#include "Landlock.h"
#include "SyscallFilter.h"

#include <QDir>
#include <QFileInfo>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Access = Landlock::Access;

constexpr unsigned long insideId = 1000; // root inside would have the engine refuse its own sandbox
constexpr char temporaryFolder[] = "/tmp";
constexpr char folderLimits[] = "mode=1777,size=512m,nr_inodes=64k";

/// Where users and programs keep what is no engine's business.
const char *const hiddenFolders[] = {"/home", "/root",    "/media",   "/mnt",
                                     "/srv",  "/var/tmp", "/dev/shm", "/run/user"};

const char *const readablePaths[] = {"/usr",
                                     "/lib",
                                     "/lib32",
                                     "/lib64",
                                     "/opt",
                                     "/nix/store",
                                     "/gnu/store",
                                     "/etc/ld.so.cache",
                                     "/etc/fonts",
                                     "/var/cache/fontconfig",
                                     "/etc/localtime",
                                     "/etc/timezone",
                                     "/etc/hosts",
                                     "/etc/host.conf",
                                     "/etc/resolv.conf",
                                     "/etc/nsswitch.conf",
                                     "/etc/gai.conf",
                                     "/etc/services",
                                     "/etc/protocols",
                                     "/etc/passwd",
                                     "/etc/group",
                                     "/run/systemd/resolve",
                                     "/run/resolvconf",
                                     "/run/NetworkManager/resolv.conf",
                                     "/run/NetworkManager/no-stub-resolv.conf",
                                     "/run/connman",
                                     "/etc/ssl/certs",
                                     "/etc/ca-certificates",
                                     "/etc/mime.types",
                                     "/sys/devices/system"};

const char *const devices[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/random",
                               "/dev/urandom"};

bool writeText(const char *path, const QByteArray &text)
{
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool isWritten = ::write(fd, text.constData(), static_cast<size_t>(text.size()))
        == static_cast<ssize_t>(text.size());
    ::close(fd);
    return isWritten;
}

QByteArray mappingTo(unsigned long outsideId)
{
    return QByteArray::number(qulonglong(insideId)) + ' '
        + QByteArray::number(qulonglong(outsideId)) + " 1";
}

} // namespace

EngineCage::EngineCage(const QByteArray &program, const QVector<quint16> &ports)
    : m_program(program)
    , m_ports(ports)
{
}

void EngineCage::enter()
{
    const QByteArray users = mappingTo(::geteuid());
    const QByteArray groups = mappingTo(::getegid());
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC) != 0)
        return;
    m_hasNamespaces = writeText("/proc/self/setgroups", "deny")
        && writeText("/proc/self/uid_map", users) && writeText("/proc/self/gid_map", groups);
}

void EngineCage::furnish()
{
    if (m_hasNamespaces && mountFolders()) {
        m_folder = temporaryFolder;
        return;
    }
    std::string pattern = QFile::encodeName(QDir::tempPath()).toStdString() + "/engine-XXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) {
        m_folder = pattern;
        m_isFolderOnDisk = true;
    }
}

/// Returns whether there is a temporary folder in memory.
bool EngineCage::mountFolders() const
{
    ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    constexpr unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
    for (const char *const folder : hiddenFolders)
        ::mount("none", folder, "tmpfs", flags | MS_RDONLY, "mode=0555,size=4k");
    ::mount("none", "/proc", "proc", flags, nullptr);
    return ::mount("none", temporaryFolder, "tmpfs", flags, folderLimits) == 0;
}

bool EngineCage::close() const
{
    if (m_folder.empty() || ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return false;
    confineFiles();
    const bool hasFilter = SyscallFilter::installForPrograms();
    Q_UNUSED(hasFilter) // a run that is confined has the same gap, and tells of it
    return ::chdir(m_folder.c_str()) == 0;
}

void EngineCage::confineFiles() const
{
    Landlock rules;
    if (!m_ports.isEmpty())
        rules.confineConnections(m_ports);
    for (const char *const path : readablePaths)
        rules.allow(QString::fromLatin1(path), Access::Read);
    for (const char *const path : {"/usr/lib", "/lib", "/lib64"})
        rules.allow(QString::fromLatin1(path), Access::Run); // the loader, the engine
    const QFileInfo program(QFile::decodeName(m_program));
    rules.allow(program.canonicalPath(), Access::Run);
    for (const char *const path : devices)
        rules.allow(QString::fromLatin1(path), Access::Device);
    // Its own sandbox maps users there.
    rules.allow(QStringLiteral("/proc"), m_hasNamespaces ? Access::Write : Access::Read);
    rules.allow(QString::fromStdString(m_folder), Access::Write);
    const bool isConfined = rules.enforce();
    Q_UNUSED(isConfined) // likewise
}

void EngineCage::tidy() const
{
    if (m_isFolderOnDisk)
        QDir(QString::fromStdString(m_folder)).removeRecursively();
}

QVector<QByteArray> EngineCage::switches() const
{
    QVector<QByteArray> switches{"--user-data-dir=" + QByteArray::fromStdString(m_folder)
                                 + "/profile"};
    // Its own sandbox is made of namespaces.
    if (!m_hasNamespaces)
        switches += "--no-sandbox";
    return switches;
}

QVector<QByteArray> EngineCage::environment() const
{
    const QByteArray folder = QByteArray::fromStdString(m_folder);
    QVector<QByteArray> variables{"PATH=/usr/bin:/bin",
                                  "LANG=C.UTF-8",
                                  "HOME=" + folder,
                                  "TMPDIR=" + folder,
                                  "XDG_RUNTIME_DIR=" + folder,
                                  "DBUS_SESSION_BUS_ADDRESS=disabled:",
                                  "DBUS_SYSTEM_BUS_ADDRESS=disabled:"};
    for (const char *const name : {"TZ", "LD_LIBRARY_PATH"}) {
        if (qEnvironmentVariableIsSet(name))
            variables += QByteArray(name) + '=' + qgetenv(name);
    }
    return variables;
}
