// Tests the process tools on awkward processes of the test's own making, and that the ending of one
// reaches what a listing showed, and no other; that the figures of ordinary ones agree with those
// of ps is tested through the official client.
#include "core/file_unlock.h"
#include "core/network.h"
#include "core/processes.h"
#include "support/fake_desktop.h"
#include "support/mcp_client.h"
#include "support/refusals.h"
#include "support/system.h"

#include <QRegularExpression>
#include <QTcpServer>

#include <sys/syscall.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using test::Child;

namespace {

/// Puts an empty directory in the place of this process's /proc; false where that is refused.
bool hideProc()
{
    return (test::makeMountsOwn() || test::makeMountsOwn(CLONE_NEWUSER)) &&
           ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
}

const QByteArray longArgument(100'000, 'a');
/// A shell's file name, whether it is deleted while it runs, a file that is then made, the shell's
/// arguments, and how they are shown.
const test::Cases<QByteArray, bool, QByteArray, QByteArrayList, QByteArray> programs{
    {"blanks and brackets", "a (b) c) R 1 2 (longer than 15", false, {}, {"a b", "-c"}, " a b -c"},
    {"hostile bytes", "a\n\xff%1\"", false, {}, {"%1\n\"\\", "\xff"}, " %1\n\"\\ \xff"},
    {"deleted", "x y", true, {}, {"", "a", "", "b", "", ""}, "  a  b"},
    {"replaced", "x", true, "x", {longArgument, "end"}, ' ' + longArgument + " end"},
    {"called so", "x (deleted)", false, {}, {}, {}},
    {"called so, deleted", "x (deleted)", true, {}, {}, {}},
    {"another is called so", "x", true, "x (deleted)", {}, {}},
};

/// How /proc, or what is in it, becomes unreadable, and the reason that is given.
const test::Cases<bool (*)(), int> failures{
    {"empty /proc", hideProc, ENOENT},
#ifndef __SANITIZE_ADDRESS__ // whose checks need descriptors of their own
    {"no descriptor for a process", [] { return test::leaveDescriptors(1); }, EMFILE},
#endif
    {"no memory for a path",
     [] { return test::refuseCall(SYS_readlinkat, test::nextDescriptor(), ENOMEM); }, ENOMEM},
};

void list()
{
    Singleton<ProcessService>::instance().listAllProcesses();
}

/// "yes" or "no", and the message.
QString killed(qint64 pid)
{
    const OpResult result =
        Singleton<FileUnlockService>::instance().killProcess(static_cast<unsigned int>(pid));
    return (result.ok ? u"yes: "_s : u"no: "_s) + result.message;
}

/// The target of a link, and what happens once it has been read.
std::pair<QByteArray, std::function<void()>>* awaitedLink = nullptr;

/// What becomes of a process that has another one's PID, in a PID namespace of their own: since a
/// listing or, where that one held a socket, since its descriptors were looked at.
QString afterARecycling(bool isHolder)
{
    if (!test::makeMountsOwn() || ::mount("proc", "/proc", "proc", 0, nullptr) != 0)
        ::_exit(test::refusedCode);
    QTcpServer listener;
    listener.listen(QHostAddress::LocalHost);
    const QString handle = u"/proc/self/fd/%1"_s.arg(listener.socketDescriptor());
    auto victim = std::make_unique<Child>();
    const pid_t pid = victim->pid();
    std::unique_ptr<Child> other;
    const QByteArray target = QFile::symLinkTarget(handle).section(u'/', -1).toUtf8();
    std::pair<QByteArray, std::function<void()>> link{
        target, [&] {
            victim.reset();
            ::usleep(50'000); // Start times of two differ by a clock tick at least.
            test::writeFile(u"/proc/sys/kernel/ns_last_pid"_s, QByteArray::number(pid - 1));
            other = std::make_unique<Child>();
            if (other->pid() != pid)
                ::_exit(test::refusedCode);
        }};
    listener.close();
    QString answer;
    if (isHolder) {
        awaitedLink = &link;
        for (const auto& row : Singleton<NetMonitorService>::instance().listAll())
            answer += row.pid == static_cast<quint32>(pid) ? u"shown, "_s : QString();
    } else {
        list();
        link.second();
    }
    if (other == nullptr)
        ::_exit(1);
    answer += killed(pid);
    return (other->isRunning() ? u"alive, "_s : u"ended, "_s) + answer;
}

} // namespace

/// In the place of the C library's: what it reads may be awaited.
extern "C" ssize_t readlinkat(int directory, const char* path, char* target, size_t size) noexcept
{
    const ssize_t length = ::syscall(SYS_readlinkat, directory, path, target, size);
    if (awaitedLink != nullptr && length > 0 &&
        awaitedLink->first == QByteArrayView(target, length))
        std::exchange(awaitedLink, nullptr)->second();
    return length;
}

class TestLinuxProcesses : public QObject
{
    Q_OBJECT

    test::Client m_client;

    QString commandLine(qint64 pid)
    {
        const auto reply = m_client.call(u"get_process_command_line"_s, {{u"pid"_s, pid}});
        return reply.json()["command_line"_L1].toString(u"(none)"_s);
    }

    /// A child of this process: "NAME|EXECUTABLE|COMMAND LINE", and its memory if that is little.
    QString described(qint64 pid)
    {
        const QRegularExpression child(u"^%1[|]%2[|]"_s.arg(pid).arg(::getpid()));
        const QString row = m_client.call(u"list_processes"_s)
                                .rows(u"processes"_s, "pid parent_pid memory_bytes name exe_path")
                                .filter(child)
                                .join(u" and "_s);
        const qint64 memory = row.section(u'|', 2, 2).toLongLong();
        return row.section(u'|', 3) + u'|' + commandLine(pid) +
               (memory > 100'000 ? u""_s : u" of %1 bytes"_s.arg(memory));
    }

private Q_SLOTS:
    // First, since what this program has listed before is known to those that it forks.
    void aRecycledPidIsLeftAlone()
    {
        // Whether it is a holder of a socket, and how the answer ends.
        for (const auto& [isHolder, reason] :
             {std::pair(false, u") 已退出, 该 PID 现属于另一个进程, 未结束任何进程"_s),
              std::pair(true, u": 最近的进程或连接列表中没有它"_s)}) {
            const QString answer = test::played([isHeld = isHolder] {
                if (::unshare(CLONE_NEWPID) != 0)
                    ::_exit(test::refusedCode);
                return test::played([isHeld] { return afterARecycling(isHeld); });
            });
            if (answer.isEmpty())
                QSKIP("this machine refuses a PID namespace");
            QVERIFY2(answer.startsWith(u"alive, no: "_s) && answer.endsWith(reason),
                     qPrintable(answer));
        }
    }

    void theListedProcessIsEnded()
    {
        Child stubborn(test::runShell(":")); // It is stopped: SIGKILL alone reaches it.
        const pid_t pid = stubborn.pid();
        QCOMPARE(killed(pid), u"no: 拒绝结束 PID %1: 最近的进程或连接列表中没有它"_s.arg(pid));
        QVERIFY(Child::isRunning(pid));
        list();
        QCOMPARE(killed(pid), u"yes: 进程 (PID %1) 已结束"_s.arg(pid));
        QVERIFY(!Child::isRunning(pid));
        const QString exited = u"yes: 进程 (PID %1) 已退出, 无需结束"_s.arg(pid);
        QCOMPARE(killed(pid), exited); // a zombie by now
        stubborn.reap();
        QCOMPARE(killed(pid), exited);
    }

    void theSystemsOwnAreRefused()
    {
        list();
        QCOMPARE(killed(1), u"no: 拒绝结束系统的初始进程 (PID 1)"_s);
        if (test::readFile(u"/proc/2/comm"_s) != "kthreadd\n")
            QSKIP("no kernel thread to be seen here");
        QCOMPARE(killed(2), u"no: 拒绝结束内核线程 (PID 2)"_s);
    }

    void aPortOfThisProgramIsFreedOfTheOthers()
    {
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        test::Client client;
        test::FakeDesktop desktop;
        desktop.setAnswer({{"{\"granted\":true}\n"}});
        const auto freePort = [&] {
            return client.call(u"kill_by_port"_s, {{u"port"_s, server.serverPort()}});
        };
        const QString nobody = freePort().text;
        QVERIFY2(nobody.endsWith(u" 未发现可结束的占用进程"_s), qPrintable(nobody));
        QVERIFY(desktop.takeReceived().isEmpty());
        const Child worker;
        const Child leaderless(test::endFirstThread);
        QCOMPARE(freePort().json().value(u"killed_count"_s), QJsonValue(2));
        QVERIFY(!Child::isRunning(worker.pid()) && !Child::isRunning(leaderless.pid()));
        QCOMPARE(desktop.takeReceived().size(), 1);
    }

    void othersProcessesAreOutOfReach()
    {
        if (::geteuid() != 0)
            QSKIP("root alone can become somebody else");
        const Child roots;
        const QString answer = test::played([&roots] {
            if (::setgid(test::nobody) != 0 || ::setuid(test::nobody) != 0)
                ::_exit(1);
            list();
            return killed(roots.pid());
        });
        QCOMPARE(answer, u"no: 没有权限结束进程 (PID %1), 它属于其他用户"_s.arg(roots.pid()));
        QVERIFY(Child::isRunning(roots.pid()));
    }

    void programIsNamed_data() { test::addRows(programs); }
    void programIsNamed()
    {
        const auto& [tag, name, deleted, newFile, arguments, shown] = test::currentRow(programs);
        const QTemporaryDir directory;
        const QByteArray root = QFile::encodeName(directory.path()) + '/';
        const QByteArray path = root + name;
        // By its bytes: Qt's own file names cannot hold what is not UTF-8.
        QVERIFY(QFile::copy(u"/bin/sh"_s, directory.filePath(u"copy"_s)));
        QCOMPARE(std::rename((root + "copy").constData(), path.constData()), 0);
        const QByteArray script = "exec >&-; kill -STOP $$";
        const Child child([&, words = QByteArrayList{path, "-c", script} + arguments] {
            QList<char*> argv;
            for (const QByteArray& word : words)
                argv.append(const_cast<char*>(word.constData()));
            argv.append(nullptr);
            ::execv(path.constData(), argv.data());
            ::_exit(1);
        });
        if (deleted)
            QCOMPARE(::unlink(path.constData()), 0);
        if (!newFile.isEmpty())
            QVERIFY(QFile(QFile::decodeName(root + newFile)).open(QIODevice::WriteOnly));
        QCOMPARE(described(child.pid()),
                 QString::fromUtf8(name + '|' + path + '|' + path + " -c " + script + shown));
        QCOMPARE(commandLine(4294967296 + child.pid()), QString());
        if (!deleted) // QTemporaryDir cannot remove every name
            QCOMPARE(::unlink(path.constData()), 0);
    }

    void aProgramMayHaveEnded()
    {
        const QString path = QCoreApplication::applicationFilePath();
        const QString self =
            path.section(u'/', -1) + u'|' + path + u'|' + QCoreApplication::arguments().join(u' ');
        const Child leaderless(test::endFirstThread);
        QCOMPARE(described(leaderless.pid()), self);
        const QByteArray name = "a) R\n(2) \"\xff\xc3\x28\\";
        const Child child([&name] { ::prctl(PR_SET_NAME, name.constData()); });
        QCOMPARE(described(child.pid()), self);
        ::kill(child.pid(), SIGKILL);
        QTRY_VERIFY(!child.isRunning()); // A zombie, since nobody has waited for it.
        QCOMPARE(described(child.pid()), QString::fromUtf8(name + "|| of 0 bytes"));
    }

    void processesMayComeAndGo()
    {
        QProcess breeder; // of 500, which end at once
        breeder.start(u"sh"_s, {u"-c"_s, u"for i in $(seq 100); do :& :& :& :& :& wait; done"_s});
        do {
            const test::ToolReply reply = m_client.call(u"list_processes"_s);
            QVERIFY2(!reply.isError, qPrintable(reply.text));
            QStringList pids = reply.rows(u"processes"_s, "pid");
            QVERIFY(pids.contains(QString::number(::getpid())));
            QCOMPARE(pids.removeDuplicates(), 0);
            QCOMPARE(reply.json()["total"_L1], pids.size());
        } while (!breeder.waitForFinished(0));
    }

    void unreadableProcIsAnError_data() { test::addRows(failures); }
    void unreadableProcIsAnError()
    {
        const auto& [name, fail, error] = test::currentRow(failures);
        const QString said = test::played([isFailing = fail] {
            test::Client client;
            if (!isFailing())
                ::_exit(test::refusedCode);
            return client.call(u"get_process_tree"_s).text;
        });
        if (said.isEmpty())
            QSKIP("this machine refuses a mount namespace, a limit of descriptors or a filter");
        QCOMPARE(said,
                 u"Tool 'get_process_tree' failed: 无法读取 /proc: "_s + qt_error_string(error));
    }
};

QTEST_GUILESS_MAIN(TestLinuxProcesses)
#include "tst_linux_processes.moc"
