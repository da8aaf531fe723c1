// Display texts and label tables of the system records.
#include "base/system_records.h"

#include "base/byte_size.h"

#include <array>

namespace korvane {

namespace {

QString notAvailable()
{
    return QStringLiteral("—");
}

QString endpoint(quint32 family, const QString& address, quint16 port)
{
    const QString format = family == 1 ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2");
    return format.arg(address, QString::number(port));
}

/// The entry of `table` at `index`, empty when outside.
template <std::size_t N> QString labelAt(const std::array<const char*, N>& table, quint32 index)
{
    return index < N ? QString::fromUtf8(table.at(index)) : QString();
}

} // namespace

QString ProcessSnapshot::memoryDisplay() const
{
    if (memoryBytes < 1)
        return notAvailable();
    return mebibytesDisplay(mebibytes(memoryBytes));
}

QString ProcessSnapshot::cpuDisplay() const
{
    if (cpuPercent < 0)
        return notAvailable();
    return QString::number(cpuPercent, 'f', 1) + QLatin1Char('%');
}

QString NetConnection::localEndpoint() const
{
    return endpoint(family, localAddress, localPort);
}

QString NetConnection::remoteEndpoint() const
{
    constexpr quint32 udp = 1;
    constexpr quint32 listening = 1;
    if (protocol == udp || state == listening)
        return notAvailable();
    return endpoint(family, remoteAddress, remotePort);
}

QString UninstallEntry::sizeDisplay() const
{
    if (estimatedSizeKb < 1)
        return notAvailable();
    return korvane::sizeDisplay(static_cast<double>(estimatedSizeKb) / 1024.0);
}

void registerRecordMetaTypes()
{
    qRegisterMetaType<ProcessInfo>();
    qRegisterMetaType<QList<ProcessInfo>>();
}

QString protocolLabel(quint32 protocol)
{
    return protocol == 0 ? QStringLiteral("TCP") : QStringLiteral("UDP");
}

QString familyLabel(quint32 family)
{
    return family == 1 ? QStringLiteral("IPv6") : QStringLiteral("IPv4");
}

QString tcpStateLabel(quint32 state)
{
    static constexpr std::array labels{
        "已关闭",     "监听中",  "SYN_SENT", "SYN_RCVD",  "已建立",     "FIN_WAIT_1", "FIN_WAIT_2",
        "CLOSE_WAIT", "CLOSING", "LAST_ACK", "TIME_WAIT", "DELETE_TCB", "UNKNOWN"};
    return labelAt(labels, state);
}

QString stateLabel(const NetConnection& connection)
{
    return connection.protocol == 1 ? notAvailable() : tcpStateLabel(connection.state);
}

QString serviceStateLabel(ServiceState state)
{
    static constexpr std::array labels{"已停止",  "启动中…", "停止中…", "运行中",
                                       "恢复中…", "暂停中…", "已暂停",  "未知"};
    return labelAt(labels, static_cast<quint32>(state));
}

QString serviceStartTypeLabel(ServiceStartType type)
{
    static constexpr std::array labels{"引导", "系统",   "自动", "自动(延迟)",
                                       "手动", "已禁用", "未知"};
    return labelAt(labels, static_cast<quint32>(type));
}

QString startupSourceKey(StartupSource source)
{
    return source == StartupSource::hklm ? QStringLiteral("hklm") : QStringLiteral("hkcu");
}

QString startupSourceLabel(const StartupItem& item)
{
    switch (item.category) {
    case StartupCategory::RegistryRun:
        return item.source == StartupSource::hklm ? QStringLiteral("系统") : QStringLiteral("用户");
    case StartupCategory::Service:
        return QStringLiteral("服务");
    case StartupCategory::ScheduledTask:
        return QStringLiteral("计划任务");
    case StartupCategory::ShellExtension:
        return QStringLiteral("Shell 扩展");
    }
    return {};
}

QString startupSourcePath(const StartupItem& item)
{
    switch (item.category) {
    case StartupCategory::RegistryRun:
        return item.source == StartupSource::hklm
                   ? QStringLiteral(R"(HKLM\Software\Microsoft\Windows\CurrentVersion\Run)")
                   : QStringLiteral(R"(HKCU\Software\Microsoft\Windows\CurrentVersion\Run)");
    case StartupCategory::Service:
        return QStringLiteral("Windows 服务 (自动启动)");
    case StartupCategory::ScheduledTask:
        return QStringLiteral("任务计划程序 (登录/开机触发)");
    case StartupCategory::ShellExtension:
        return QStringLiteral("Shell 扩展 (已批准)");
    }
    return {};
}

QString uninstallSourceLabel(quint32 source)
{
    static constexpr std::array labels{"系统 64", "系统 32", "用户"};
    return labelAt(labels, source);
}

QString signatureStatusLabel(SignatureStatus status)
{
    switch (status) {
    case SignatureStatus::Unchecked:
        return QStringLiteral("—");
    case SignatureStatus::Trusted:
        return QStringLiteral("已签名 ✓");
    case SignatureStatus::Untrusted:
        return QStringLiteral("签名无效");
    case SignatureStatus::Unsigned:
        return QStringLiteral("未签名");
    case SignatureStatus::Unknown:
        return QStringLiteral("未知");
    }
    return {};
}

} // namespace korvane
