// The plain records that the platform back ends fill, with their display texts and label tables.
#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

namespace korvane {

/// One running process.
struct ProcessSnapshot
{
    quint32 pid = 0;
    quint32 parentPid = 0;
    QString name;           ///< Image (executable file) name.
    QString exePath;        ///< Full path of the executable; empty when it cannot be read.
    qint64 memoryBytes = 0; ///< Memory in use; 0 or less when unknown.
    double cpuPercent = -1; ///< Use since the previous sample; negative when not measured.

    /// Memory in MiB as "50.0 MB", without a decimal from 100 MiB on; "—" when unknown.
    QString memoryDisplay() const;

    /// Processor use as "12.5%"; "—" when not measured.
    QString cpuDisplay() const;
};

/// One TCP or UDP endpoint.
struct NetConnection
{
    quint32 protocol = 0; ///< 0 = TCP, 1 = UDP.
    quint32 family = 0;   ///< 0 = IPv4, 1 = IPv6.
    QString localAddress; ///< Textual, without brackets.
    quint16 localPort = 0;
    QString remoteAddress;
    quint16 remotePort = 0;
    quint32 state = 0; ///< TCP state 0..12, see tcpStateLabel(); meaningless for UDP.
    quint32 pid = 0;   ///< Owning process; 0 when there is none or it is not visible.
    QString processName;

    /// "address:port", the address in brackets for IPv6.
    QString localEndpoint() const;

    /// Like localEndpoint(); "—" for UDP and for listening sockets.
    QString remoteEndpoint() const;
};

enum class StartupSource : qint32 {
    hklm = 0, ///< Machine-wide.
    hkcu = 1, ///< Current user.
};

enum class StartupCategory : qint32 {
    RegistryRun = 0,
    Service = 1,
    ScheduledTask = 2,
    ShellExtension = 3,
};

/// One program started automatically.
struct StartupItem
{
    StartupSource source = StartupSource::hklm;
    StartupCategory category = StartupCategory::RegistryRun;
    QString name;    ///< Value name, service display name, task name or extension name.
    QString command; ///< Full command line as registered.
    QString exePath; ///< The executable taken from `command`.
    bool enabled = false;
};

/// One installed program.
struct UninstallEntry
{
    quint32 source = 0; ///< 0 = machine-wide, 1 = machine-wide 32-bit, 2 = current user.
    QString identifier; ///< The back end's own key for the entry; no tool prints it.
    QString displayName;
    QString displayVersion;
    QString publisher;
    QString installLocation;
    QString uninstallString;    ///< Command that uninstalls the program; may be empty.
    qint64 estimatedSizeKb = 0; ///< KiB; 0 or less when unknown.

    /// Size as "2.0 MB", "500 MB" or "3.00 GB"; "—" when unknown.
    QString sizeDisplay() const;
};

enum class ServiceStartType : qint32 {
    Boot = 0,
    System = 1,
    Auto = 2,
    AutoDelayed = 3,
    Manual = 4,
    Disabled = 5,
    Unknown = 6,
};

enum class ServiceState : qint32 {
    Stopped = 0,
    StartPending = 1,
    StopPending = 2,
    Running = 3,
    ContinuePending = 4,
    PausePending = 5,
    Paused = 6,
    Unknown = 7,
};

/// One operating-system service.
struct ServiceItem
{
    QString name;        ///< Key name.
    QString displayName; ///< May be empty.
    QString description;
    QString binaryPath; ///< Image path with arguments, as registered (possibly quoted).
    ServiceState state = ServiceState::Unknown;
    ServiceStartType startType = ServiceStartType::Unknown;
    quint32 pid = 0; ///< Process hosting the service; 0 when not running.
};

/// One sample of system metrics. Percentages are 0..100, rates are KiB per second.
struct SystemMetrics
{
    double cpuPercent = 0;
    double memoryPercent = 0;
    quint64 memoryUsedBytes = 0;
    quint64 memoryTotalBytes = 0;
    double diskPercent = 0; ///< Busy time.
    double diskReadKbs = 0;
    double diskWriteKbs = 0;
    double netRecvKbs = 0;
    double netSendKbs = 0;
    double commitPercent = 0; ///< Commit charge as percent of the commit limit.
    quint64 commitChargeBytes = 0;
    quint64 commitLimitBytes = 0;
};

/// One process that holds a file open.
struct ProcessInfo
{
    quint32 pid = 0;
    QString appName;     ///< Display name of the application; may be empty.
    QString serviceName; ///< Name of the service it hosts; for back ends and graphical hosts.
    QString exePath;
    quint32 sessionId = 0; ///< Log-on session; for back ends and graphical hosts.
};

/// Result of a probe for the processes that hold files.
struct LockerProbe
{
    bool ok = false;              ///< The probe could run.
    QString error;                ///< Why it could not.
    QList<ProcessInfo> processes; ///< One entry per process that holds at least one of the files.
};

/// What is known of a file's signature. The values are persisted.
enum class SignatureStatus : qint32 {
    Unchecked = 0, ///< No answer known.
    Trusted = 1,   ///< Signed, valid and trusted.
    Untrusted = 2, ///< Signed, but invalid or not trusted.
    Unsigned = 3,
    Unknown = 4, ///< Could not be determined.
};

/// Makes ProcessInfo and lists of it known to the meta-type system by name, so that they can
/// travel in queued signals. May be called more than once.
void registerRecordMetaTypes();

/// "TCP" for 0, else "UDP".
QString protocolLabel(quint32 protocol);

/// "IPv6" for 1, else "IPv4".
QString familyLabel(quint32 family);

/// Label of a TCP state 0..12; empty above.
QString tcpStateLabel(quint32 state);

/// The state label of a row: "—" for UDP, else tcpStateLabel().
QString stateLabel(const NetConnection& connection);

/// Label of a service's run state; empty for a value outside the enumeration.
QString serviceStateLabel(ServiceState state);

/// Label of a service's start type; empty for a value outside the enumeration.
QString serviceStartTypeLabel(ServiceStartType type);

/// "hklm" for StartupSource::hklm, else "hkcu".
QString startupSourceKey(StartupSource source);

/// Where a startup item comes from, as a short label; empty for an unknown category.
QString startupSourceLabel(const StartupItem& item);

/// Where a startup item comes from, as a registry path or place; empty for an unknown category.
QString startupSourcePath(const StartupItem& item);

/// Label of UninstallEntry::source; empty for a value outside the table.
QString uninstallSourceLabel(quint32 source);

/// Label of a status; empty for a value outside the enumeration.
QString signatureStatusLabel(SignatureStatus status);

} // namespace korvane
