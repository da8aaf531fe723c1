// Shows at a terminal what the server says of itself, and what its services find on this machine.
#include "base/byte_size.h"
#include "base/watchdog.h"
#include "consent/listener.h"
#include "core/junk_scanner.h"
#include "core/large_files.h"
#include "core/metrics.h"
#include "core/network.h"
#include "core/process_tree.h"
#include "core/processes.h"
#include "core/services.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTextStream>

#include <algorithm>
#include <concepts>
#include <cstdlib>
#include <functional>
#include <thread>

namespace {

using namespace korvane;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

constexpr qsizetype shownRows = 10;

/// The text, which may come from the machine, made harmless for a terminal.
QString shown(QString text)
{
    for (QChar& character : text) {
        if (!character.isPrint() && !character.isSurrogate())
            character = u'?';
    }
    return text;
}

QString shown(std::integral auto number)
{
    return QString::number(number);
}

QString shown(double number)
{
    return QString::number(number, 'f', 1);
}

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

void print(const QString& format, const auto&... values)
{
    out() << format.arg(shown(values)...);
}

QString sizeColumn(qint64 bytes)
{
    return (shown(mebibytes(bytes)) + u" MB"_s).rightJustified(12);
}

/// Starts the server, asks it what clients ask first, and shows what it answers. False when an answer
/// is missing, or the server does not end with its input in time.
bool showServer(const QString& program)
{
    constexpr int patienceMs = 60'000;
    QProcess server;
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(program, QStringList());
    server.write(
        R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":)"
        R"("2024-11-05","capabilities":{},"clientInfo":{"name":"korvane-report","version":"1"}}}
{"jsonrpc":"2.0","method":"notifications/initialized"}
{"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"get_app_info"}}
{"jsonrpc":"2.0","id":3,"method":"tools/list"}
)");
    server.closeWriteChannel();
    if (!server.waitForFinished(patienceMs))
        return false;
    const auto answer = [&server] {
        return QJsonDocument::fromJson(server.readLine())[u"result"_s];
    };
    const bool isGreeted = answer().isObject();
    const QString text = answer()[u"content"_s][0][u"text"_s].toString();
    const QJsonObject info = QJsonDocument::fromJson(text.toUtf8()).object();
    QStringList tools;
    for (const QJsonValue tool : answer()[u"tools"_s].toArray())
        tools.append(tool[u"name"_s].toString());
    tools.sort();
    if (!isGreeted || info.isEmpty() || tools.isEmpty())
        return false;
    const auto about = [&info](const QString& key) { return info.value(key).toString(); };
    print(u"%1 %2 — %3\n"_s, about(u"name"_s), about(u"version"_s), about(u"description"_s));
    print(u"系统: %1, 内核 %2\n"_s, about(u"platform"_s), about(u"kernel_version"_s));
    print(u"程序: %1\n工具 (%2): %3\n"_s, about(u"executable"_s), tools.size(),
          tools.join(u", "_s));
    return true;
}

/// Whether the service could list what there is; shows why not.
bool isListed(const auto& service, const auto& records, const QString& topic)
{
    if (!records.isEmpty() || service.lastError().isEmpty())
        return true;
    print(u"  %1: %2\n"_s, topic, service.lastError());
    return false;
}

void showProcesses()
{
    const ProcessService& service = Singleton<ProcessService>::instance();
    service.listAllProcesses(); // What processor use is measured against.
    std::this_thread::sleep_for(500ms);
    QList<ProcessSnapshot> processes = service.listAllProcesses();
    if (!isListed(service, processes, u"进程"_s))
        return;
    const ProcessTree tree(processes);
    std::ranges::sort(processes, std::greater(), &ProcessSnapshot::memoryBytes);
    print(u"\n内存占用最多的进程 (共 %1 个):\n"_s, processes.size());
    out() << u"       PID       内存      CPU  名称\n"_s;
    for (const ProcessSnapshot& process : processes.mid(0, shownRows)) {
        print(u"  %1 %2 %3  %4\n"_s, shown(process.pid).rightJustified(8),
              process.memoryDisplay().rightJustified(10), process.cpuDisplay().rightJustified(8),
              process.name);
    }
    print(u"\n进程树: %1 个进程, %2 个根进程, 最深 %3 层\n"_s, processes.size(), tree.rootCount(),
          tree.depth());
}

void showLoad()
{
    const SystemMetrics load = measureLoad(250ms);
    print(u"\n当前负载:\n  CPU  %1%\n"_s, load.cpuPercent);
    print(u"  内存 %1% (%2), 提交 %3% (%4)\n"_s, load.memoryPercent,
          gibibytesDisplay(load.memoryUsedBytes, load.memoryTotalBytes), load.commitPercent,
          gibibytesDisplay(load.commitChargeBytes, load.commitLimitBytes));
    print(u"  磁盘 %1% 忙, 读 %2 KB/s, 写 %3 KB/s\n"_s, load.diskPercent, load.diskReadKbs,
          load.diskWriteKbs);
    print(u"  网络 收 %1 KB/s, 发 %2 KB/s\n"_s, load.netRecvKbs, load.netSendKbs);
}

void showListeners()
{
    const NetMonitorService& service = Singleton<NetMonitorService>::instance();
    const QList<NetConnection> connections = service.listAll();
    if (!isListed(service, connections, u"网络连接"_s))
        return;
    QList<NetConnection> listeners = connections;
    listeners.removeIf([](const auto& connection) { return stateLabel(connection) != u"监听中"; });
    print(u"\n监听中的 TCP 端口 (%1), 全部网络连接 %2 个:\n"_s, listeners.size(),
          connections.size());
    for (const NetConnection& listener : std::as_const(listeners)) {
        const QString owner = listener.pid == 0
                                  ? u"(进程不可见)"_s
                                  : u"%1 (PID %2)"_s.arg(listener.processName, shown(listener.pid));
        print(u"  %1  %2\n"_s, listener.localEndpoint().leftJustified(28), owner);
    }
}

/// Shows the units that systemd calls failed: the services know only whether they run.
void showFailedUnits()
{
    constexpr int patienceMs = 5000;
    QProcess systemctl;
    systemctl.setStandardInputFile(QProcess::nullDevice());
    systemctl.start(u"systemctl"_s, {u"list-units"_s, u"--type=service"_s, u"--state=failed"_s,
                                     u"--plain"_s, u"--no-legend"_s, u"--no-pager"_s});
    const bool ended = systemctl.waitForFinished(patienceMs);
    if (!ended || systemctl.exitStatus() != QProcess::NormalExit || systemctl.exitCode() != 0) {
        out() << u", 无法查询出现故障的服务\n"_s;
        return;
    }
    const QStringList units = QString::fromUtf8(systemctl.readAllStandardOutput())
                                  .split(u'\n', Qt::SkipEmptyParts); // "NAME ... DESCRIPTION"
    print(u", 出现故障 %1 个\n"_s, units.size());
    for (const QString& unit : units)
        print(u"  %1\n"_s, unit.simplified());
}

void showServices()
{
    const ServiceManagerService& service = Singleton<ServiceManagerService>::instance();
    const QList<ServiceItem> services = service.listAll();
    if (!isListed(service, services, u"服务"_s))
        return;
    print(u"\n服务: 共 %1 个, 运行中 %2 个"_s, services.size(),
          std::ranges::count(services, ServiceState::Running, &ServiceItem::state));
    showFailedUnits();
}

/// What a search of the disks finds. Shows first what is known by then, as it may take its time.
auto found(const auto& search)
{
    out().flush();
    const Watchdog::Work work;
    return search();
}

void showJunk()
{
    const auto isWanted = [](const JunkCategory&, int, int) { return true; };
    QList<JunkItem> items = found([&] { return JunkScanner::scanCatalog(isWanted); });
    std::ranges::sort(items, std::greater(), &JunkItem::sizeBytes);
    qint64 bytes = 0;
    qint64 files = 0;
    for (const JunkItem& item : std::as_const(items)) {
        bytes = sizeSum(bytes, item.sizeBytes);
        files += item.fileCount;
    }
    print(u"\n可清理的垃圾: %1 MB, %2 个文件\n"_s, mebibytes(bytes), files);
    for (const JunkItem& item : items.mid(0, shownRows))
        print(u"%1  %2 (%3)\n"_s, sizeColumn(item.sizeBytes), item.name, item.id);
}

void showLargestFiles()
{
    constexpr qint64 minSize = 50LL * 1024 * 1024;
    const QString home = QStandardPaths::writableLocation(QStandardPaths::HomeLocation);
    if (!QDir(home).exists()) {
        print(u"  路径不存在: %1\n"_s, home);
        return;
    }
    const auto [scanned, files] =
        found([&] { return findLargeFiles(home, minSize, shownRows, {}); });
    print(u"\n%1 中 50 MB 以上的文件, 最大的 %2 个 (共查看 %3 个文件):\n"_s, home, files.size(),
          scanned);
    for (const LargeFile& file : files)
        print(u"%1  %2\n"_s, sizeColumn(file.bytes), file.path);
}

/// Shows where a person says yes to a change, or how to open such a place.
void showDesk(const QString& command)
{
    const QString path = consent::channelPath();
    const auto listener = consent::findListener();
    if (!listener)
        print(u"\n授权台: 没有程序在监听 %1, 因此一切更改都会被拒绝。\n"
              "  启动授权台: %2 --desk (没有图形界面时: %2 --desk --terminal)\n"_s,
              path, command);
    else
        print(listener->isTrusted
                  ? u"\n授权台: 正在监听 %1 (客户端须使用同一个 TMPDIR): %2\n"_s
                  : u"\n授权台: %1 不由本用户的程序监听, 它的答复不会被采信: %2\n"_s,
              path, listener->name);
}

void showClientConfiguration()
{
    const QString command = QFileInfo(QCoreApplication::arguments().at(2)).absoluteFilePath();
    showDesk(command);
    const QJsonObject server{{u"command"_s, command}, {u"args"_s, QJsonArray()}};
    const QJsonObject block{{u"mcpServers"_s, QJsonObject{{u"korvane"_s, server}}}};
    out() << u"\n要让 AI 客户端使用它, 把下面这段加入客户端的 MCP 配置:\n\n"_s
          << QString::fromUtf8(QJsonDocument(block).toJson());
    out().flush();
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3) {
        QTextStream(stderr) << u"usage: korvane-report SERVER CLIENT-COMMAND\n"_s;
        return 2;
    }
    if (!showServer(arguments.at(1))) {
        QTextStream(stderr) << u"服务器没有应答: %1\n"_s.arg(arguments.at(1));
        return 1;
    }
    showProcesses();
    showLoad();
    showListeners();
    showServices();

    // The main thread is stuck in a search then, and leaves the stream alone.
    const auto giveUp = [] {
        out() << u"  磁盘没有应答\n"_s;
        showClientConfiguration();
        std::_Exit(EXIT_FAILURE);
    };
    const Watchdog watchdog([] { return true; }, giveUp, Watchdog::Limits());
    showJunk();
    showLargestFiles();
    showClientConfiguration();
    return 0;
}
