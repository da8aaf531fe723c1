// Tests the process tools on awkward processes of the test's own making; that the figures of
// ordinary ones agree with those of ps is tested through the official client.
#include "support/mcp_client.h"
#include "support/refusals.h"
#include "support/system.h"

#include <sys/syscall.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using test::Child;

namespace {

using Listing = QHash<qint64, QJsonObject>; ///< Process objects by PID.

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

} // namespace

class TestLinuxProcesses : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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
        child.end();
        QCOMPARE(described(child.pid()), QString::fromUtf8(name + "|| of 0 bytes"));
    }

    void processesMayComeAndGo()
    {
        QProcess breeder; // of 500, which end at once
        breeder.start(u"sh"_s, {u"-c"_s, u"for i in $(seq 100); do :& :& :& :& :& wait; done"_s});
        do {
            const test::ToolReply reply = m_client.call(u"list_processes"_s);
            QVERIFY2(!reply.isError, qPrintable(reply.text));
            const Listing listing = byPid(reply);
            QVERIFY(listing.contains(::getpid()));
            QCOMPARE(reply.json()["total"_L1], listing.size()); // no PID twice
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

    /// A child of this process: "NAME|EXECUTABLE|COMMAND LINE", and its memory if that is little.
    QString described(qint64 pid)
    {
        const QJsonObject process = listed().value(pid);
        if (process["parent_pid"_L1] != ::getpid())
            return u"no child"_s;
        const qint64 memory = process["memory_bytes"_L1].toInteger();
        return process["name"_L1].toString() + u'|' + process["exe_path"_L1].toString() + u'|' +
               commandLine(pid) + (memory > 100'000 ? u""_s : u" of %1 bytes"_s.arg(memory));
    }

    test::Client m_client;
};

QTEST_GUILESS_MAIN(TestLinuxProcesses)
#include "tst_linux_processes.moc"
