// Plays the client at a terminal: starts the server, calls its tools and shows what they answer.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTextStream>

#include <algorithm>
#include <functional>
#include <optional>
#include <vector>

namespace {

using namespace Qt::StringLiterals;

/// For each answer. A search of a large and slow disk may take longer, and is then given up.
constexpr int answerTimeoutMs = 150'000;

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

/// Text from the machine, made harmless for a terminal.
QString printable(QString text)
{
    for (QChar& character : text) {
        if (!character.isPrint() && !character.isSurrogate())
            character = u'?';
    }
    return text;
}

/// A conversation with a server of its own, which ends with the object.
class Session
{
public:
    explicit Session(const QString& server)
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(server, QStringList());
    }

    ~Session()
    {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished())
            m_process.kill();
    }

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    Session(Session&&) = delete;
    Session& operator=(Session&&) = delete;

    /// The "result" of a request; none when the server does not answer with one in time.
    std::optional<QJsonObject> request(const QString& method, const QJsonObject& params = {})
    {
        send({{u"jsonrpc"_s, u"2.0"_s},
              {u"id"_s, ++m_lastId},
              {u"method"_s, method},
              {u"params"_s, params}});
        while (true) {
            const QByteArray line = readLine();
            const QJsonDocument answer = QJsonDocument::fromJson(line);
            const QJsonValue result = answer[u"result"_s];
            if (!line.isEmpty() && answer[u"id"_s].toInteger() != m_lastId)
                continue; // of a request that was given up
            return result.isObject() ? std::optional(result.toObject()) : std::nullopt;
        }
    }

    void notify(const QString& method) { send({{u"jsonrpc"_s, u"2.0"_s}, {u"method"_s, method}}); }

    /// A tool's result object; none, with the tool's error shown, when the call fails.
    std::optional<QJsonObject> call(const QString& tool, const QJsonObject& args = {})
    {
        const auto result = request(u"tools/call"_s, {{u"name"_s, tool}, {u"arguments"_s, args}});
        const QString text = result.value_or(QJsonObject())
                                 .value(u"content"_s)
                                 .toArray()
                                 .at(0)[u"text"_s]
                                 .toString();
        if (!result || result->value(u"isError"_s).toBool()) {
            out() << u"  %1: %2\n"_s.arg(tool, text.isEmpty() ? u"没有应答"_s : printable(text));
            return std::nullopt;
        }
        return QJsonDocument::fromJson(text.toUtf8()).object();
    }

private:
    void send(const QJsonObject& message)
    {
        m_process.write(QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n');
    }

    QByteArray readLine()
    {
        QElapsedTimer timer;
        timer.start();
        while (!m_process.canReadLine()) {
            const auto left = answerTimeoutMs - static_cast<int>(timer.elapsed());
            if (left <= 0 || !m_process.waitForReadyRead(left))
                return {};
        }
        return m_process.readLine();
    }

    QProcess m_process;
    int m_lastId = 0;
};

void showIdentity(Session& session)
{
    const auto info = session.call(u"get_app_info"_s);
    if (!info)
        return;
    const auto text = [&info](const QString& key) {
        return printable(info->value(key).toString());
    };
    out() << u"%1 %2 — %3\n"_s.arg(text(u"name"_s), text(u"version"_s), text(u"description"_s))
          << u"系统: %1, 内核 %2\n"_s.arg(text(u"platform"_s), text(u"kernel_version"_s))
          << u"程序: %1\n"_s.arg(text(u"executable"_s));
}

void showTools(Session& session)
{
    const QJsonObject answer = session.request(u"tools/list"_s).value_or(QJsonObject());
    QStringList names;
    for (const QJsonValue tool : answer.value(u"tools"_s).toArray())
        names.append(tool[u"name"_s].toString());
    names.sort();
    out() << u"工具 (%1): %2\n"_s.arg(QString::number(names.size()), names.join(u", "_s));
}

void showProcesses(Session& session)
{
    constexpr std::size_t shown = 10;
    const auto listing = session.call(u"list_processes"_s);
    if (!listing)
        return;
    const QJsonArray array = listing->value(u"processes"_s).toArray();
    std::vector<QJsonObject> processes;
    for (const QJsonValue process : array)
        processes.push_back(process.toObject());
    const auto memoryOf = [](const QJsonObject& process) {
        return process.value(u"memory_bytes"_s).toInteger();
    };
    std::ranges::sort(processes, std::greater(), memoryOf);

    out() << u"\n内存占用最多的进程 (共 %1 个):\n"_s.arg(processes.size())
          << u"       PID       内存      CPU  名称\n"_s;
    processes.resize(std::min(processes.size(), shown));
    for (const QJsonObject& process : processes) {
        out() << u"  %1 %2 %3  %4\n"_s.arg(
            QString::number(process.value(u"pid"_s).toInteger()).rightJustified(8),
            process.value(u"memory_display"_s).toString().rightJustified(10),
            process.value(u"cpu_display"_s).toString().rightJustified(8),
            printable(process.value(u"name"_s).toString()));
    }
}

void showTree(Session& session)
{
    const auto tree = session.call(u"get_process_tree"_s);
    if (!tree)
        return;
    // Level by level, since the depth is whatever the machine's processes make it.
    const QJsonArray roots = tree->value(u"roots"_s).toArray();
    QJsonArray level = roots;
    int depth = 0;
    while (!level.isEmpty()) {
        ++depth;
        QJsonArray next;
        for (const QJsonValue node : std::as_const(level)) {
            for (const QJsonValue child : node[u"children"_s].toArray())
                next.append(child);
        }
        level = next;
    }
    out() << u"\n进程树: %1 个进程, %2 个根进程, 最深 %3 层\n"_s.arg(
        QString::number(tree->value(u"total"_s).toInteger()), QString::number(roots.size()),
        QString::number(depth));
}

void showLoad(Session& session)
{
    const auto metrics = session.call(u"get_system_metrics"_s);
    if (!metrics)
        return;
    const auto number = [&metrics](const QString& key) {
        return QString::number(metrics->value(key).toDouble(), 'f', 1);
    };
    const auto text = [&metrics](const QString& key) {
        return printable(metrics->value(key).toString());
    };
    out() << u"\n当前负载:\n"_s << u"  CPU  %1%\n"_s.arg(number(u"cpu_percent"_s))
          << u"  内存 %1% (%2), 提交 %3% (%4)\n"_s.arg(
                 number(u"memory_percent"_s), text(u"memory_display"_s),
                 number(u"commit_percent"_s), text(u"commit_display"_s))
          << u"  磁盘 %1% 忙, 读 %2 KB/s, 写 %3 KB/s\n"_s.arg(
                 number(u"disk_percent"_s), number(u"disk_read_kbs"_s), number(u"disk_write_kbs"_s))
          << u"  网络 收 %1 KB/s, 发 %2 KB/s\n"_s.arg(number(u"net_recv_kbs"_s),
                                                      number(u"net_send_kbs"_s));
}

void showListeners(Session& session)
{
    const auto listing = session.call(u"list_network_connections"_s);
    if (!listing)
        return;
    QStringList rows;
    for (const QJsonValue row : listing->value(u"connections"_s).toArray()) {
        if (row[u"state"_s].toString() != u"监听中")
            continue;
        const qint64 pid = row[u"pid"_s].toInteger();
        const QString owner = pid == 0 ? u"(进程不可见)"_s
                                       : u"%1 (PID %2)"_s.arg(row[u"process_name"_s].toString(),
                                                              QString::number(pid));
        rows.append(
            u"  %1  %2\n"_s.arg(row[u"local"_s].toString().leftJustified(28), printable(owner)));
    }
    out() << u"\n监听中的 TCP 端口 (%1), 全部网络连接 %2 个:\n"_s.arg(
                 QString::number(rows.size()),
                 QString::number(listing->value(u"total"_s).toInteger()))
          << rows.join(QString());
}

/// The units that systemd calls failed, one "NAME ... DESCRIPTION" a line; none when it cannot be
/// asked. The tools know only whether a service runs.
std::optional<QStringList> failedUnits()
{
    constexpr int patienceMs = 5000;
    QProcess systemctl;
    systemctl.setStandardInputFile(QProcess::nullDevice());
    systemctl.start(u"systemctl"_s, {u"list-units"_s, u"--type=service"_s, u"--state=failed"_s,
                                     u"--plain"_s, u"--no-legend"_s, u"--no-pager"_s});
    const bool ended = systemctl.waitForFinished(patienceMs);
    if (!ended || systemctl.exitStatus() != QProcess::NormalExit || systemctl.exitCode() != 0)
        return std::nullopt;
    const QString output = QString::fromUtf8(systemctl.readAllStandardOutput());
    return output.split(u'\n', Qt::SkipEmptyParts);
}

void showServices(Session& session)
{
    const auto listing = session.call(u"list_services"_s);
    if (!listing)
        return;
    out() << u"\n服务: 共 %1 个, 运行中 %2 个"_s.arg(
        QString::number(listing->value(u"total"_s).toInteger()),
        QString::number(listing->value(u"running"_s).toInteger()));
    const auto failed = failedUnits();
    if (!failed) {
        out() << u", 无法查询出现故障的服务\n"_s;
        return;
    }
    out() << u", 出现故障 %1 个\n"_s.arg(failed->size());
    for (const QString& unit : *failed)
        out() << u"  %1\n"_s.arg(printable(unit.simplified()));
}

QString sizeColumn(const QJsonValue& item)
{
    return (QString::number(item[u"size_mb"_s].toDouble(), 'f', 1) + u" MB"_s).rightJustified(12);
}

void showJunk(Session& session)
{
    constexpr std::size_t shown = 10;
    const auto junk = session.call(u"scan_junk"_s);
    if (!junk)
        return;
    std::vector<QJsonObject> categories;
    for (const QJsonValue category : junk->value(u"categories"_s).toArray())
        categories.push_back(category.toObject());
    const auto sizeOf = [](const QJsonObject& category) {
        return category.value(u"size_bytes"_s).toInteger();
    };
    std::ranges::sort(categories, std::greater(), sizeOf);
    out() << u"\n可清理的垃圾: %1 MB, %2 个文件\n"_s.arg(
        QString::number(junk->value(u"total_size_mb"_s).toDouble(), 'f', 1),
        QString::number(junk->value(u"total_file_count"_s).toInteger()));
    categories.resize(std::min(categories.size(), shown));
    for (const QJsonObject& category : categories) {
        out() << u"%1  %2 (%3)\n"_s.arg(sizeColumn(category),
                                        category.value(u"category_name"_s).toString(),
                                        category.value(u"category_id"_s).toString());
    }
}

void showLargestFiles(Session& session)
{
    const auto found = session.call(u"find_large_files"_s, {{u"max_results"_s, 10}});
    if (!found)
        return;
    out() << u"\n%1 中 50 MB 以上的文件, 最大的 %2 个 (共查看 %3 个文件):\n"_s.arg(
        printable(found->value(u"root_path"_s).toString()),
        QString::number(found->value(u"hit_count"_s).toInteger()),
        QString::number(found->value(u"scanned_files"_s).toInteger()));
    for (const QJsonValue file : found->value(u"files"_s).toArray())
        out() << u"%1  %2\n"_s.arg(sizeColumn(file), printable(file[u"path"_s].toString()));
}

void showClientConfiguration(const QString& command)
{
    const QJsonObject server{{u"command"_s, command}, {u"args"_s, QJsonArray()}};
    const QJsonObject block{{u"mcpServers"_s, QJsonObject{{u"korvane"_s, server}}}};
    out() << u"\n要让 AI 客户端使用它, 把下面这段加入客户端的 MCP 配置:\n\n"_s
          << QString::fromUtf8(QJsonDocument(block).toJson());
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

    Session session(arguments.at(1));
    const QJsonObject clientInfo{{u"name"_s, u"korvane-report"_s}, {u"version"_s, u"1"_s}};
    const auto handshake =
        session.request(u"initialize"_s, {{u"protocolVersion"_s, u"2024-11-05"_s},
                                          {u"capabilities"_s, QJsonObject()},
                                          {u"clientInfo"_s, clientInfo}});
    if (!handshake) {
        QTextStream(stderr) << u"服务器没有应答: %1\n"_s.arg(arguments.at(1));
        return 1;
    }
    session.notify(u"notifications/initialized"_s);

    showIdentity(session);
    showTools(session);
    showProcesses(session);
    showTree(session);
    showLoad(session);
    showListeners(session);
    showServices(session);
    out().flush(); // Disks may take their time.
    showJunk(session);
    showLargestFiles(session);
    showClientConfiguration(QFileInfo(arguments.at(2)).absoluteFilePath());
    out().flush();
    return 0;
}
