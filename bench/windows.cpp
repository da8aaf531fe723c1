// Times the server's start and its listing of processes beside Windows' own programs and beside Toolhelp, in
// turn: the whole answer beside tasklist, and the listing alone beside one that reads the same (PID, parent,
// name, memory in use, times, path of the executable). All in one session, whose own start is not counted.
// Usage: korvane-windows PATH\TO\korvane-mcp.exe
#include "core/processes.h"
#include "in_turn.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStringList>

#include <memory>
#include <vector>

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

namespace {

using namespace Qt::StringLiterals;
using korvane::bench::compareInTurn;
using korvane::bench::milliseconds;

constexpr int patience = 30000; // milliseconds

struct Closer
{
    void operator()(void* handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, Closer>;

korvane::ProcessSnapshot toolhelpRecord(const PROCESSENTRY32W& entry)
{
    korvane::ProcessSnapshot process;
    process.pid = entry.th32ProcessID;
    process.parentPid = entry.th32ParentProcessID;
    process.name = QString::fromWCharArray(entry.szExeFile);
    const Handle handle(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process.pid));
    if (handle == nullptr)
        return process;
    FILETIME times[4];
    GetProcessTimes(handle.get(), &times[0], &times[1], &times[2], &times[3]);
    process.cpuPercent = times[3].dwLowDateTime;
    PROCESS_MEMORY_COUNTERS memory{};
    if (GetProcessMemoryInfo(handle.get(), &memory, sizeof memory) != FALSE)
        process.memoryBytes = static_cast<qint64>(memory.WorkingSetSize);
    wchar_t path[MAX_PATH];
    DWORD length = MAX_PATH;
    if (QueryFullProcessImageNameW(handle.get(), 0, path, &length) != FALSE)
        process.exePath = QString::fromWCharArray(path, static_cast<qsizetype>(length));
    return process;
}

QList<korvane::ProcessSnapshot> listByToolhelp()
{
    QList<korvane::ProcessSnapshot> processes;
    const Handle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = Process32FirstW(snapshot.get(), &entry); more != FALSE;
         more = Process32NextW(snapshot.get(), &entry))
        processes.append(toolhelpRecord(entry));
    return processes;
}

void startQuietly(QProcess& process, const QString& program, const QStringList& arguments = {})
{
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(program, arguments);
}

bool endInput(QProcess& process)
{
    process.closeWriteChannel();
    return process.waitForFinished(patience);
}

bool runProgram(const QString& program, const QStringList& arguments = {})
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    startQuietly(process, program, arguments);
    return process.waitForFinished(patience) && process.exitCode() == 0;
}

/// Whether the server answers a request, a line, with a result that is no error.
bool ask(QProcess& server, const QByteArray& request)
{
    server.write(request + '\n');
    while (!server.canReadLine()) {
        if (!server.waitForReadyRead(patience))
            return false;
    }
    const QByteArray answer = server.readLine();
    return answer.contains(R"("result":)") && !answer.contains(R"("isError":true)");
}

const QByteArray initialize =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2024-11-05",)"
    R"("capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})";
const QByteArray listProcesses =
    R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"list_processes","arguments":{}}})";

/// From the server's start to its first answer.
double startServer(const QString& path)
{
    QProcess server;
    const double time = milliseconds([&] {
        startQuietly(server, path);
        return ask(server, initialize);
    });
    return endInput(server) ? time : -1;
}

bool compareStarts(const QString& path)
{
    constexpr int rounds = 31;
    const auto start = [&path] { return startServer(path); };
    const auto empty = [] {
        return milliseconds([] { return runProgram(u"cmd"_s, {u"/c"_s, u"exit"_s}); });
    };
    const auto tasklist = [] { return milliseconds([] { return runProgram(u"tasklist"_s); }); };
    return compareInTurn(rounds, {"start to first answer", start}, {"cmd /c exit", empty}) &&
           compareInTurn(rounds, {"start to first answer", start}, {"tasklist", tasklist});
}

bool compareListings(const QString& path)
{
    constexpr int rounds = 101;
    const auto& service = korvane::Singleton<korvane::ProcessService>::instance();
    const auto own = [&] {
        return milliseconds([&] { return !service.listAllProcesses().isEmpty(); });
    };
    const auto toolhelp = [] { return milliseconds([] { return !listByToolhelp().isEmpty(); }); };
    QProcess server;
    startQuietly(server, path);
    const auto call = [&server] {
        return milliseconds([&] { return ask(server, listProcesses); });
    };
    const auto tasklist = [] { return milliseconds([] { return runProgram(u"tasklist"_s); }); };
    const auto count = std::to_string(listByToolhelp().size()) + " processes";
    return compareInTurn(rounds, {count + " listed", own}, {"Toolhelp", toolhelp}) &&
           ask(server, initialize) &&
           server.write("{\"jsonrpc\":\"2.0\",\"method\":\"notifications/initialized\"}\n") > 0 &&
           compareInTurn(rounds / 4, {"list_processes, " + count, call}, {"tasklist", tasklist}) &&
           endInput(server);
}

/// Starts copies of this program that do nothing until their input ends, as it does with this one.
std::vector<std::unique_ptr<QProcess>> startIdle(int count)
{
    std::vector<std::unique_ptr<QProcess>> idle;
    for (int i = 0; i < count; ++i) {
        idle.push_back(std::make_unique<QProcess>());
        startQuietly(*idle.back(), QCoreApplication::applicationFilePath(), {u"idle"_s});
        idle.back()->waitForStarted(patience);
    }
    return idle;
}

} // namespace

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    const QString server = QCoreApplication::arguments().value(1);
    if (server == u"idle"_s)
        return std::cin.get() == EOF ? 0 : 1;
    bool isDone = compareStarts(server) && compareListings(server);
    const auto idle = startIdle(100);
    isDone = isDone && compareListings(server);
    for (const auto& process : idle)
        isDone = endInput(*process) && isDone;
    return isDone ? 0 : 1;
}
