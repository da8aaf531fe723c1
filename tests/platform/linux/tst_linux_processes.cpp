// Tests the process tools on awkward processes of the test's own making; that the figures of
// ordinary ones agree with those of ps is tested through the official client.
#include "support/mcp_client.h"
#include "support/refusals.h"
#include "support/system.h"

#include <cstring>

#include <sys/syscall.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using test::Child;

namespace {

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

using Listing = QHash<qint64, QJsonObject>; ///< Process objects by PID.

/// A listed child of this process: its name and its executable.
QString briefly(const QJsonObject& process)
{
    if (process["parent_pid"_L1] != ::getpid())
        return u"no child"_s;
    return process["name"_L1].toString() + u'|' + process["exe_path"_L1].toString();
}

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

/// Puts an empty directory in the place of this process's /proc; false where that is refused.
bool hideProc()
{
    return (test::makeMountsOwn() || test::makeMountsOwn(CLONE_NEWUSER)) &&
           ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0;
}

/// A program's name, whether it is deleted while it runs, and a file that is then made.
const test::Cases<QByteArray, bool, QByteArray> executables{
    {"blanks and brackets", "a (b) c) R 1 2 (longer than 15", false, {}},
    {"hostile bytes", "a\n\xff%1\"", false, {}},
    {"deleted", "x y", true, {}},
    {"replaced", "x", true, "x"},
    {"called so", "x (deleted)", false, {}},
    {"called so, deleted", "x (deleted)", true, {}},
    {"another is called so", "x", true, "x (deleted)"},
};

const test::Cases<QByteArray> shortNames{
    {"brackets", "a) R 1 (2) S 3"},
    {"empty", ""},
    {"line feed, quote, backslash", "a\n1 (b) S\\n\""},
    {"not UTF-8", "\xff\xc3\x28\x80z"},
};

/// Arguments, and how they are shown.
const test::Cases<QByteArrayList, QByteArray> commandLines{
    {"blanks", {"a b", "-c"}, "a b -c"},
    {"empty arguments", {"", "a", "", "b", "", ""}, " a  b"},
    {"100 kB", {QByteArray(100'000, 'a'), "end"}, QByteArray(100'000, 'a') + " end"},
    {"hostile", {"%1\n\"\\", "\xff"}, "%1\n\"\\ \xff"},
    {"the first thread has ended", {"--leaderless"}, "--leaderless"},
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

} // namespace

class TestLinuxProcesses : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(listed().contains(::getpid())); }

    void executableIsNamed_data() { test::addRows(executables); }
    void executableIsNamed()
    {
        const auto& [tag, name, deleted, newFile] = test::currentRow(executables);
        const QTemporaryDir directory;
        const QByteArray root = QFile::encodeName(directory.path()) + '/';
        const QByteArray path = root + name;
        // By its bytes: Qt's own file names cannot hold what is not UTF-8.
        QVERIFY(
            QFile::copy(QCoreApplication::applicationFilePath(), directory.filePath(u"copy"_s)));
        QCOMPARE(std::rename((root + "copy").constData(), path.constData()), 0);
        const Child child(waiterAt(path));
        if (deleted)
            QCOMPARE(::unlink(path.constData()), 0);
        if (!newFile.isEmpty())
            QVERIFY(QFile(QFile::decodeName(root + newFile)).open(QIODevice::WriteOnly));

        const QJsonObject process = listed().value(child.pid());
        QCOMPARE(briefly(process), QString::fromUtf8(name + '|' + path));
        QCOMPARE(commandLine(child.pid()), QString::fromUtf8(path + " --wait"));
        if (!deleted) // QTemporaryDir cannot remove every name
            QCOMPARE(::unlink(path.constData()), 0);
    }

    void shortNameIsShownWithoutAnExecutable_data() { test::addRows(shortNames); }
    void shortNameIsShownWithoutAnExecutable()
    {
        const QByteArray& name = std::get<1>(test::currentRow(shortNames));
        const Child child([&name] { ::prctl(PR_SET_NAME, name.constData()); });
        const QJsonObject alive = listed().value(child.pid());
        QVERIFY(briefly(alive).endsWith(u'|' + QCoreApplication::applicationFilePath()));
        QVERIFY(alive["memory_bytes"_L1].toInteger() > 100'000);

        child.end();
        const QJsonObject zombie = listed().value(child.pid());
        QCOMPARE(briefly(zombie), QString::fromUtf8(name + '|'));
        QCOMPARE(zombie["memory_bytes"_L1], 0);
        QCOMPARE(commandLine(child.pid()), QString());
    }

    void commandLineIsWhole_data() { test::addRows(commandLines); }
    void commandLineIsWhole()
    {
        const auto& [name, arguments, shown] = test::currentRow(commandLines);
        const QByteArray program = QFile::encodeName(QCoreApplication::applicationFilePath());
        const Child child(waiterAt(program, arguments));
        QCOMPARE(commandLine(child.pid()), QString::fromUtf8(program + " --wait " + shown));
        QCOMPARE(commandLine(4294967296 + child.pid()), QString());
        const QJsonObject process = listed().value(child.pid());
        QVERIFY(briefly(process).endsWith(u'|' + QCoreApplication::applicationFilePath()));
        QVERIFY(process["memory_bytes"_L1].toInteger() > 100'000);
    }

    void processesMayComeAndGo()
    {
        const Child breeder([] {}, breed);
        do {
            const test::ToolReply reply = m_client.call(u"list_processes"_s);
            QVERIFY2(!reply.isError, qPrintable(reply.text));
            const Listing listing = byPid(reply);
            QVERIFY(listing.contains(::getpid()));
            QCOMPARE(reply.json()["total"_L1], listing.size()); // no PID twice
        } while (breeder.isRunning());
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
        QCOMPARE(said, u"Tool 'get_process_tree' failed: 无法读取 /proc: "_s +
                           QString::fromUtf8(std::strerror(error)));
    }

private:
    static Listing byPid(const test::ToolReply& reply)
    {
        Listing listing;
        for (const QJsonValue process : reply.json().value("processes"_L1).toArray())
            listing.insert(process["pid"_L1].toInteger(), process.toObject());
        return listing;
    }

    Listing listed() { return byPid(m_client.call(u"list_processes"_s)); }

    QString commandLine(qint64 pid)
    {
        const auto reply = m_client.call(u"get_process_command_line"_s, {{u"pid"_s, pid}});
        return reply.json()["command_line"_L1].toString(u"(none)"_s);
    }

    test::Client m_client;
};

int main(int argc, char** argv)
{
    if (argc > 1 && QByteArrayView(argv[1]) == "--wait") {
        if (argc > 2 && QByteArrayView(argv[2]) == "--leaderless")
            test::endFirstThread();
        ::close(STDOUT_FILENO);
        test::waitForEnd();
    }
    const QCoreApplication application(argc, argv);
    TestLinuxProcesses test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_linux_processes.moc"
