// Tests the process tools on awkward processes of the test's own making; that the figures of
// ordinary ones agree with those of ps is tested through the official client.
#include "support/child_process.h"
#include "support/mcp_client.h"
#include "support/refusals.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace korvane;
using test::Child;
using test::waitForEnd;

namespace {

constexpr int refused = 77; ///< Exit code of a role that cannot be played here.

/// What makes a Child this program, copied to `path`, which waits for its end.
std::function<void()> waiterAt(const QByteArray& path, const QByteArrayList& arguments = {})
{
    return [path, words = QByteArrayList{path, "--wait"} + arguments] {
        QList<char*> argv;
        for (const QByteArray& word : words)
            argv.append(const_cast<char*>(word.constData()));
        argv.append(nullptr);
        ::execv(path.constData(), argv.data());
        ::_exit(1);
    };
}

QString text(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString(QStringLiteral("(none)"));
}

qint64 number(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toInteger(-1);
}

using Listing = QHash<qint64, QJsonObject>; ///< Process objects by PID.

/// Gives birth to 500 processes, 10 at a time, which end at once.
void breed()
{
    for (int born = 1; born <= 500; ++born) {
        if (::fork() == 0)
            ::_exit(0);
        while (born % 10 == 0 && ::waitpid(-1, nullptr, 0) > 0) {
        }
    }
    ::_exit(0);
}

} // namespace

class TestLinuxProcesses : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(listed().contains(::getpid())); }

    void executableIsNamed_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<bool>("deleted");
        QTest::addColumn<QByteArray>("newFile");
        QTest::newRow("blanks and brackets")
            << QByteArray("a (b) c) R 1 2 (longer than 15") << false << QByteArray();
        QTest::newRow("hostile bytes") << QByteArray("a\n\xff%1\"") << false << QByteArray();
        QTest::newRow("deleted") << QByteArray("x y") << true << QByteArray();
        QTest::newRow("replaced") << QByteArray("x") << true << QByteArray("x");
        QTest::newRow("called so") << QByteArray("x (deleted)") << false << QByteArray();
        QTest::newRow("called so, deleted") << QByteArray("x (deleted)") << true << QByteArray();
        QTest::newRow("another is called so")
            << QByteArray("x") << true << QByteArray("x (deleted)");
    }
    void executableIsNamed()
    {
        QFETCH(QByteArray, name);
        QFETCH(bool, deleted);
        QFETCH(QByteArray, newFile);
        const QTemporaryDir directory;
        const QByteArray root = QFile::encodeName(directory.path()) + '/';
        const QByteArray path = root + name;
        // By its bytes: Qt's own file names cannot hold what is not UTF-8.
        QVERIFY(QFile::copy(QCoreApplication::applicationFilePath(),
                            directory.filePath(QStringLiteral("copy"))));
        QCOMPARE(std::rename((root + "copy").constData(), path.constData()), 0);
        const Child child(waiterAt(path));
        if (deleted)
            QCOMPARE(::unlink(path.constData()), 0);
        if (!newFile.isEmpty())
            QVERIFY(QFile(QFile::decodeName(root + newFile)).open(QIODevice::WriteOnly));

        const QJsonObject process = listed().value(child.pid());
        QCOMPARE(text(process, "exe_path"), QString::fromUtf8(path));
        QCOMPARE(text(process, "name"), QString::fromUtf8(name));
        QCOMPARE(number(process, "parent_pid"), qint64{::getpid()});
        QCOMPARE(commandLine(child.pid()), QString::fromUtf8(path + " --wait"));
        if (!deleted) // QTemporaryDir cannot remove every name
            QCOMPARE(::unlink(path.constData()), 0);
    }

    void shortNameIsShownWithoutAnExecutable_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::newRow("brackets") << QByteArray("a) R 1 (2) S 3");
        QTest::newRow("empty") << QByteArray("");
        QTest::newRow("line feed, quote, backslash") << QByteArray("a\n1 (b) S\\n\"");
        QTest::newRow("not UTF-8") << QByteArray("\xff\xc3\x28\x80z");
    }
    void shortNameIsShownWithoutAnExecutable()
    {
        QFETCH(QByteArray, name);
        const Child child([&name] { ::prctl(PR_SET_NAME, name.constData()); });
        const QJsonObject alive = listed().value(child.pid());
        QCOMPARE(text(alive, "exe_path"), QCoreApplication::applicationFilePath());
        QCOMPARE(number(alive, "parent_pid"), qint64{::getpid()});
        QVERIFY(number(alive, "memory_bytes") > 100'000);

        child.end();
        const QJsonObject zombie = listed().value(child.pid());
        QCOMPARE(text(zombie, "name"), QString::fromUtf8(name));
        QCOMPARE(text(zombie, "exe_path"), QString());
        QCOMPARE(number(zombie, "parent_pid"), qint64{::getpid()});
        QCOMPARE(number(zombie, "memory_bytes"), 0);
        QCOMPARE(commandLine(child.pid()), QString());
    }

    void commandLineIsWhole_data()
    {
        QTest::addColumn<QByteArrayList>("arguments");
        QTest::addColumn<QByteArray>("shown");
        QTest::newRow("blanks") << QByteArrayList{"a b", "-c"} << QByteArray("a b -c");
        QTest::newRow("empty arguments")
            << QByteArrayList{"", "a", "", "b", "", ""} << QByteArray(" a  b");
        QTest::newRow("100 kB") << QByteArrayList{QByteArray(100'000, 'a'), "end"}
                                << QByteArray(100'000, 'a') + " end";
        QTest::newRow("hostile") << QByteArrayList{"%1\n\"\\", "\xff"}
                                 << QByteArray("%1\n\"\\ \xff");
        QTest::newRow("the first thread has ended")
            << QByteArrayList{"--leaderless"} << QByteArray("--leaderless");
    }
    void commandLineIsWhole()
    {
        QFETCH(QByteArrayList, arguments);
        QFETCH(QByteArray, shown);
        const QByteArray program = QFile::encodeName(QCoreApplication::applicationFilePath());
        const Child child(waiterAt(program, arguments));
        QCOMPARE(commandLine(child.pid()), QString::fromUtf8(program + " --wait " + shown));
        QCOMPARE(commandLine(4294967296 + child.pid()), QString());
        const QJsonObject process = listed().value(child.pid());
        QCOMPARE(text(process, "exe_path"), QString::fromUtf8(program));
        QVERIFY(number(process, "memory_bytes") > 100'000);
    }

    void processesMayComeAndGo()
    {
        const Child breeder([] {}, breed);
        siginfo_t ended = {};
        while (ended.si_pid == 0) {
            const test::ToolReply reply = m_client.call(QStringLiteral("list_processes"));
            QVERIFY2(!reply.isError, qPrintable(reply.text));
            const Listing listing = byPid(reply);
            QVERIFY(listing.contains(::getpid()));
            QCOMPARE(number(reply.json(), "total"), listing.size()); // no PID twice
            ::waitid(P_PID, static_cast<id_t>(breeder.pid()), &ended, WEXITED | WNOHANG | WNOWAIT);
        }
    }

    void unreadableProcIsAnError_data()
    {
        QTest::addColumn<QStringList>("role");
        QTest::addColumn<int>("error");
        QTest::newRow("empty /proc") << QStringList{QStringLiteral("--empty-proc")} << ENOENT;
#ifndef __SANITIZE_ADDRESS__ // whose checks need descriptors of their own
        QTest::newRow("no descriptor for a process")
            << QStringList{QStringLiteral("--one-descriptor")} << EMFILE;
#endif
        QTest::newRow("no memory for a path")
            << QStringList{QStringLiteral("--no-links")} << ENOMEM;
    }
    void unreadableProcIsAnError()
    {
        QFETCH(QStringList, role);
        QFETCH(int, error);
        QProcess process;
        process.start(QCoreApplication::applicationFilePath(), role);
        QVERIFY(process.waitForFinished(60'000));
        if (process.exitCode() == refused)
            QSKIP("this machine refuses a mount namespace, a limit of descriptors or a filter");
        QCOMPARE(process.readAllStandardOutput(),
                 "Tool 'get_process_tree' failed: 无法读取 /proc: " +
                     QByteArray(std::strerror(error)));
    }

private:
    static Listing byPid(const test::ToolReply& reply)
    {
        Listing listing;
        for (const QJsonValue process : reply.json().value(QLatin1String("processes")).toArray())
            listing.insert(number(process.toObject(), "pid"), process.toObject());
        return listing;
    }

    Listing listed()
    {
        return byPid(m_client.call(QStringLiteral("list_processes")));
    }

    QString commandLine(qint64 pid)
    {
        const QJsonObject reply =
            m_client
                .call(QStringLiteral("get_process_command_line"), {{QStringLiteral("pid"), pid}})
                .json();
        return text(reply, "command_line");
    }

    test::Client m_client;
};

/// Puts an empty directory in the place of this process's /proc; false where that is refused.
bool hideProc()
{
    return (::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
           ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
}

/// Plays a role in which /proc cannot be read, or not what is in it.
bool play(QByteArrayView role)
{
    if (role == "--empty-proc")
        return hideProc();
    if (role == "--one-descriptor")
        return test::leaveDescriptors(1);
    return test::refuseCall(SYS_readlinkat, test::nextDescriptor(), ENOMEM);
}

int main(int argc, char** argv)
{
    const QByteArrayView role(argc > 1 ? argv[1] : "");
    if (role == "--wait") {
        if (argc > 2 && QByteArrayView(argv[2]) == "--leaderless")
            test::endFirstThread();
        ::close(STDOUT_FILENO);
        waitForEnd();
    }
    if (role == "--empty-proc" || role == "--one-descriptor" || role == "--no-links") {
        test::Client client;
        if (!play(role))
            ::_exit(refused);
        const auto reply = client.call(QStringLiteral("get_process_tree"));
        std::cout << reply.text.toStdString() << std::flush;
        ::_exit(0); // leaks cannot be looked for without /proc
    }
    QCoreApplication application(argc, argv);
    TestLinuxProcesses test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_linux_processes.moc"
