// Tests the ending of processes on processes of the test's own: that it reaches the one that a
// listing showed, and no other.
#include "core/file_unlock_service.h"
#include "core/process_service.h"
#include "support/child_process.h"
#include "support/fake_desktop.h"
#include "support/mcp_client.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTest>

#include <iostream>

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>

using namespace korvane;
using namespace Qt::StringLiterals;
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

/// Gives a process's PID to another one, in a PID namespace of their own.
int playRecycled()
{
    if (::unshare(CLONE_NEWPID | CLONE_NEWNS) != 0)
        return refused;
    const Child init(
        [] {},
        [] {
            if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                ::mount("proc", "/proc", "proc", 0, nullptr) != 0)
                ::_exit(refused);
            auto victim = std::make_unique<Child>();
            const pid_t pid = victim->pid();
            list();
            victim.reset();
            ::usleep(50'000); // The start times of two processes differ by a clock tick at least.
            QFile last(u"/proc/sys/kernel/ns_last_pid"_s);
            if (!last.open(QFile::WriteOnly | QFile::Unbuffered) ||
                last.write(QByteArray::number(pid - 1)) < 0)
                ::_exit(refused);
            const Child other;
            if (other.pid() != pid)
                ::_exit(refused);
            const QString answer = killed(pid);
            std::cerr << (isAlive(pid) ? "alive, " : "ended, ") << answer.toStdString()
                      << std::flush;
            ::_exit(0);
        });
    siginfo_t end = {};
    ::waitid(P_PID, static_cast<id_t>(init.pid()), &end, WEXITED | WNOWAIT);
    return end.si_code == CLD_EXITED ? end.si_status : 1;
}

} // namespace

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
        QCOMPARE(freePort().json().value(u"killed_count"_s), QJsonValue(1));
        QVERIFY(!isAlive(worker.pid()));
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

    void aRecycledPidIsLeftAlone()
    {
        const QString answer = played({u"--recycled"_s});
        if (answer.isEmpty())
            QSKIP("this machine refuses a PID namespace");
        QVERIFY2(answer.startsWith(u"alive, no: 进程 (PID "_s), qPrintable(answer));
        QVERIFY2(answer.endsWith(u") 已退出, 该 PID 现属于另一个进程, 未结束任何进程"_s),
                 qPrintable(answer));
    }
};

int main(int argc, char** argv)
{
    const QByteArrayView role(argc > 1 ? argv[1] : "");
    if (role == "--recycled")
        ::_exit(playRecycled()); // leaks cannot be looked for in another namespace
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
