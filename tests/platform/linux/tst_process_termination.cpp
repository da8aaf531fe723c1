// Tests the ending of processes on processes of the test's own: that it reaches the one that a
// listing showed, and no other.
#include "core/file_unlock.h"
#include "core/network.h"
#include "core/processes.h"
#include "platform/linux/sys/proc_fs.h"
#include "support/child_process.h"
#include "support/fake_desktop.h"
#include "support/mcp_client.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTest>

#include <functional>
#include <iostream>
#include <memory>
#include <utility>

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using linux_platform::UniqueFd;
using test::Child;

namespace {

constexpr int refused = 77; ///< Exit code of a role that cannot be played here.

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

bool isAlive(qint64 pid)
{
    siginfo_t info = {};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

/// What happens once a link has been read that leads to `target`.
struct LinkRead
{
    QByteArray target;
    std::function<void()> then;
};
LinkRead* awaitedLink = nullptr;

/// Gives a process's PID to another one, in a PID namespace of their own: after a listing or, where
/// it holds a socket, while its descriptors are looked at.
int playRecycled(bool isHolder)
{
    if (::unshare(CLONE_NEWPID | CLONE_NEWNS) != 0)
        return refused;
    const Child init([isHolder] {
        if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("proc", "/proc", "proc", 0, nullptr) != 0)
            ::_exit(refused);
        UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        struct stat status = {};
        ::fstat(listener.get(), &status);
        ::listen(listener.get(), 1); // on a free port
        auto victim = std::make_unique<Child>();
        const pid_t pid = victim->pid();
        listener = UniqueFd();
        std::unique_ptr<Child> other;
        LinkRead link{"socket:[" + QByteArray::number(qulonglong{status.st_ino}) + ']', [&] {
                          victim.reset();
                          ::usleep(50'000); // Start times of two differ by a clock tick at least.
                          QFile last(u"/proc/sys/kernel/ns_last_pid"_s);
                          if (!last.open(QFile::WriteOnly | QFile::Unbuffered) ||
                              last.write(QByteArray::number(pid - 1)) < 0)
                              ::_exit(refused);
                          other = std::make_unique<Child>();
                          if (other->pid() != pid)
                              ::_exit(refused);
                      }};
        if (isHolder) {
            awaitedLink = &link;
            for (const auto& row : Singleton<NetMonitorService>::instance().listAll())
                std::cerr << (row.pid == static_cast<quint32>(pid) ? "shown, " : "");
        } else {
            list();
            link.then();
        }
        if (other == nullptr)
            ::_exit(1);
        const QString answer = killed(pid);
        std::cerr << (isAlive(pid) ? "alive, " : "ended, ") << answer.toStdString() << std::flush;
        ::_exit(0);
    });
    siginfo_t end = {};
    ::waitid(P_PID, static_cast<id_t>(init.pid()), &end, WEXITED | WNOWAIT);
    return end.si_code == CLD_EXITED ? end.si_status : 1;
}

} // namespace

/// In the place of the C library's: what it reads may be awaited.
extern "C" ssize_t readlinkat(int directory, const char* path, char* target, size_t size) noexcept
{
    const ssize_t length = ::syscall(SYS_readlinkat, directory, path, target, size);
    if (awaitedLink != nullptr && length > 0 &&
        awaitedLink->target == QByteArrayView(target, length))
        std::exchange(awaitedLink, nullptr)->then();
    return length;
}

class TestProcessTermination : public QObject
{
    Q_OBJECT

    /// What this program says on standard error in a role.
    static QString played(const QStringList& role)
    {
        QProcess process;
        process.start(QCoreApplication::applicationFilePath(), role);
        if (process.waitForFinished(60'000) && process.exitCode() == refused)
            return {};
        const QString said = QString::fromUtf8(process.readAllStandardError());
        return process.exitCode() == 0 && process.exitStatus() == QProcess::NormalExit
                   ? said
                   : said + u", and failed"_s;
    }

private Q_SLOTS:
    void theListedProcessIsEnded()
    {
        Child stubborn([] {
            for (int number = 1; number < NSIG; ++number)
                static_cast<void>(std::signal(number, SIG_IGN));
        });
        const pid_t pid = stubborn.pid();
        QCOMPARE(killed(pid), u"no: 拒绝结束 PID %1: 最近的进程或连接列表中没有它"_s.arg(pid));
        QVERIFY(isAlive(pid));
        list();
        QCOMPARE(killed(pid), u"yes: 进程 (PID %1) 已结束"_s.arg(pid));
        QVERIFY(!isAlive(pid));
        const QString exited = u"yes: 进程 (PID %1) 已退出, 无需结束"_s.arg(pid);
        QCOMPARE(killed(pid), exited); // a zombie by now
        stubborn.reap();
        QCOMPARE(killed(pid), exited);
    }

    void theSystemsOwnAreRefused()
    {
        list();
        QCOMPARE(killed(1), u"no: 拒绝结束系统的初始进程 (PID 1)"_s);
        QFile name(u"/proc/2/comm"_s);
        if (!name.open(QFile::ReadOnly) || name.readAll() != "kthreadd\n")
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
        QVERIFY(!isAlive(worker.pid()) && !isAlive(leaderless.pid()));
        QCOMPARE(desktop.takeReceived().size(), 1);
    }

    void othersProcessesAreOutOfReach()
    {
        if (::geteuid() != 0)
            QSKIP("root alone can become somebody else");
        const Child roots;
        QCOMPARE(played({u"--as-nobody"_s, QString::number(roots.pid())}),
                 u"no: 没有权限结束进程 (PID %1), 它属于其他用户"_s.arg(roots.pid()));
        QVERIFY(isAlive(roots.pid()));
    }

    void aRecycledPidIsLeftAlone_data()
    {
        QTest::addColumn<QString>("role");
        QTest::addColumn<QString>("reason");
        QTest::newRow("after the listing")
            << u"--recycled"_s << u") 已退出, 该 PID 现属于另一个进程, 未结束任何进程"_s;
        QTest::newRow("during the listing of connections")
            << u"--recycled-holder"_s << u": 最近的进程或连接列表中没有它"_s;
    }
    void aRecycledPidIsLeftAlone()
    {
        QFETCH(QString, role);
        QFETCH(QString, reason);
        const QString answer = played({role});
        if (answer.isEmpty())
            QSKIP("this machine refuses a PID namespace");
        QVERIFY2(answer.startsWith(u"alive, no: "_s), qPrintable(answer));
        QVERIFY2(answer.endsWith(reason), qPrintable(answer));
    }
};

int main(int argc, char** argv)
{
    const QByteArrayView role(argc > 1 ? argv[1] : "");
    if (role == "--recycled" || role == "--recycled-holder")
        ::_exit(playRecycled(
            role == "--recycled-holder")); // leaks cannot be looked for in another namespace
    if (role == "--as-nobody") {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            return refused;
        list();
        std::cerr << killed(QByteArray(argv[2]).toInt()).toStdString();
        return 0;
    }
    QCoreApplication application(argc, argv);
    TestProcessTermination test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_process_termination.moc"
