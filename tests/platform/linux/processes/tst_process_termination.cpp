// Tests the ending of processes on processes of the test's own: that it reaches the one that a
// listing showed, and no other.
#include "core/file_unlock.h"
#include "core/network.h"
#include "core/processes.h"
#include "support/fake_desktop.h"
#include "support/mcp_client.h"
#include "support/system.h"

#include <QTcpServer>

#include <sys/syscall.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using test::Child;

namespace {

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

class TestProcessTermination : public QObject
{
    Q_OBJECT

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
};

QTEST_GUILESS_MAIN(TestProcessTermination)
#include "tst_process_termination.moc"
