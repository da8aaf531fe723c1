// Display texts and label tables of the system records.
#include "base/system_records.h"

#include "base/byte_size.h"

#include <array>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QString notAvailable()
{
    return u"—"_s;
}

QString endpoint(quint32 family, const QString& address, quint16 port)
{
    const QString format = family == 1 ? u"[%1]:%2"_s : u"%1:%2"_s;
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
    return protocol == 0 ? u"TCP"_s : u"UDP"_s;
}

QString familyLabel(quint32 family)
{
    return family == 1 ? u"IPv6"_s : u"IPv4"_s;
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
    return source == StartupSource::hklm ? u"hklm"_s : u"hkcu"_s;
}

QString startupSourceLabel(const StartupItem& item)
{
    switch (item.category) {
    case StartupCategory::RegistryRun:
        return item.source == StartupSource::hklm ? u"系统"_s : u"用户"_s;
    case StartupCategory::Service:
        return u"服务"_s;
    case StartupCategory::ScheduledTask:
        return u"计划任务"_s;
    case StartupCategory::ShellExtension:
        return u"Shell 扩展"_s;
    }
    return {};
}

QString startupSourcePath(const StartupItem& item)
{
    switch (item.category) {
    case StartupCategory::RegistryRun:
        return item.source == StartupSource::hklm
                   ? uR"(HKLM\Software\Microsoft\Windows\CurrentVersion\Run)"_s
                   : uR"(HKCU\Software\Microsoft\Windows\CurrentVersion\Run)"_s;
    case StartupCategory::Service:
        return u"Windows 服务 (自动启动)"_s;
    case StartupCategory::ScheduledTask:
        return u"任务计划程序 (登录/开机触发)"_s;
    case StartupCategory::ShellExtension:
        return u"Shell 扩展 (已批准)"_s;
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
        return u"—"_s;
    case SignatureStatus::Trusted:
        return u"已签名 ✓"_s;
    case SignatureStatus::Untrusted:
        return u"签名无效"_s;
    case SignatureStatus::Unsigned:
        return u"未签名"_s;
    case SignatureStatus::Unknown:
        return u"未知"_s;
    }
    return {};
}

} // namespace korvane
