#include "Landlock.h"

#include <QFile>

#include <cstddef>
#include <cstdint>

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Versions of the interface, by what came with them.
constexpr int withTruncation = 3;
constexpr int withTcp = 4;
constexpr int withDeviceControl = 5;
constexpr int withScopes = 6;

// The system's header may be older than its kernel.
constexpr std::uint64_t truncateFile = 1U << 14;
constexpr std::uint64_t controlDevice = 1U << 15;
constexpr std::uint64_t bindTcp = 1U << 0;
constexpr std::uint64_t connectTcp = 1U << 1;
constexpr unsigned portRule = 2;
constexpr std::uint64_t scopeAbstractSockets = 1U << 0;
constexpr std::uint64_t scopeSignals = 1U << 1;

/// The kernel takes a longer structure than it knows as long as the rest is zero.
struct RulesetAttributes
{
    std::uint64_t fileAccess;
    std::uint64_t netAccess;
    std::uint64_t scopes;
};

struct PortRule
{
    std::uint64_t netAccess;
    std::uint64_t port; ///< in the machine's order of bytes
};

constexpr std::uint64_t firstFileAccess = LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE
    | LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_REMOVE_DIR
    | LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_DIR
    | LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO
    | LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM;

/// What may be asked of something that is no folder.
constexpr std::uint64_t singleFileAccess = LANDLOCK_ACCESS_FS_WRITE_FILE
    | LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_EXECUTE | truncateFile | controlDevice;

std::uint64_t fileAccessOf(int version)
{
    return firstFileAccess | (version >= withTruncation ? truncateFile : 0)
        | (version >= withDeviceControl ? controlDevice : 0);
}

std::uint64_t bitsOf(Landlock::Access access)
{
    constexpr std::uint64_t read = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
    switch (access) {
    case Landlock::Access::Read:
        return read;
    case Landlock::Access::Write:
        return read | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_FILE
            | LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_DIR | truncateFile;
    case Landlock::Access::Device:
        return read | LANDLOCK_ACCESS_FS_WRITE_FILE | controlDevice;
    case Landlock::Access::Remove:
        return LANDLOCK_ACCESS_FS_REMOVE_FILE;
    case Landlock::Access::Run:
        return read | LANDLOCK_ACCESS_FS_EXECUTE;
    }
    return 0;
}

} // namespace

Landlock::Landlock()
    : m_version(offeredVersion())
{
}

Landlock::~Landlock()
{
    if (m_rules >= 0)
        ::close(m_rules);
}

int Landlock::offeredVersion()
{
    const long version = ::syscall(SYS_landlock_create_ruleset, nullptr, std::size_t{0},
                                   LANDLOCK_CREATE_RULESET_VERSION);
    return version > 0 ? static_cast<int>(version) : 0;
}

void Landlock::allowAbstractSockets()
{
    m_mayUseAbstractSockets = true;
}

void Landlock::confineConnections(const QVector<quint16> &ports)
{
    m_areConnectionsConfined = true;
    m_ports = ports;
}

void Landlock::create()
{
    if (m_rules >= 0 || m_version == 0)
        return;
    RulesetAttributes attributes{fileAccessOf(m_version), 0, 0};
    if (m_version >= withTcp)
        attributes.netAccess = bindTcp | (m_areConnectionsConfined ? connectTcp : 0);
    if (m_version >= withScopes)
        attributes.scopes = scopeSignals | (m_mayUseAbstractSockets ? 0 : scopeAbstractSockets);
    m_rules = static_cast<int>(
        ::syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0U));
    if (m_rules >= 0 && (attributes.netAccess & connectTcp) != 0)
        allowPorts();
}

/// A rule that the kernel does not take leaves its port closed.
void Landlock::allowPorts() const
{
    for (const quint16 port : m_ports) {
        const PortRule rule{connectTcp, port};
        ::syscall(SYS_landlock_add_rule, m_rules, portRule, &rule, 0U);
    }
}

void Landlock::allow(const QString &path, Access access)
{
    create();
    const int target = ::open(QFile::encodeName(path).constData(), O_PATH | O_CLOEXEC);
    if (target < 0)
        return;
    struct stat status
    {
    };
    if (m_rules >= 0 && ::fstat(target, &status) == 0) {
        landlock_path_beneath_attr rule{};
        rule.allowed_access = bitsOf(access) & fileAccessOf(m_version);
        if (!S_ISDIR(status.st_mode))
            rule.allowed_access &= singleFileAccess;
        rule.parent_fd = target;
        // A rule that the kernel does not take leaves its path closed, which is the safe side.
        if (rule.allowed_access != 0)
            ::syscall(SYS_landlock_add_rule, m_rules, LANDLOCK_RULE_PATH_BENEATH, &rule, 0U);
    }
    ::close(target);
}

bool Landlock::enforce()
{
    create();
    return m_rules >= 0 && ::syscall(SYS_landlock_restrict_self, m_rules, 0U) == 0;
}

bool Landlock::confinesConnections(int version)
{
    return version >= withTcp;
}

QStringList Landlock::gapsOf(int version)
{
    QStringList gaps;
    if (version < withTruncation)
        gaps += QStringLiteral("files may be cut short anywhere");
    if (version < withTcp)
        gaps += QStringLiteral("TCP ports may be served");
    if (version < withDeviceControl)
        gaps += QStringLiteral("devices may be controlled");
    if (version < withScopes)
        gaps += QStringLiteral("signals may be sent to other processes");
    return gaps;
}
