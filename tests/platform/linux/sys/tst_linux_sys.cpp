// Tests the reading and parsing of /proc on saved, damaged and hostile text, and on directories of
// its shape; who may answer for the user, on real sockets of this and of another user; and that two
// threads meet on one processor for a hand-over, and are free again after it.
#include "platform/linux/sys/proc_fs.h"
#include "platform/peer.h"
#include "platform/process_setup.h"
#include "support/damage.h"
#include "support/file_tree.h"
#include "support/system.h"

using namespace korvane;
using namespace linux_platform;
using namespace Qt::StringLiterals;

namespace {

constexpr int bufferSize = 8192;

const QByteArray savedLine =
    "4711 (bash) S 811 4711 4711 34817 5120 4194304 3155 921 2 1 64 27 3 1 20 0 1 0 98765 8720384 "
    "1250 18446744073709551615 1 2 0 0 0 65536 3686404 1266761467 1 0 0 17 1 0 0 0 0 0 1 "
    "2 3 4 5 6 7 0\n";

/// What a line tells, in one text: "NAME|PARENT TICKS START"; nothing where it is refused.
QByteArray told(const QByteArray& line)
{
    const auto stat = parseProcStat(line);
    if (!stat)
        return {};
    return stat->shortName.toByteArray() + '|' + QByteArray::number(stat->parentPid) + ' ' +
           QByteArray::number(stat->cpuTicks) + ' ' + QByteArray::number(stat->startTicks) +
           (stat->isKernelThread ? " kernel" : "");
}

/// What is changed in the saved line, to what, and what is told then.
const test::Cases<QByteArray, QByteArray> changes{
    {" 811 ", " 4294967295 ", "bash|4294967295 91 98765"},
    {"98765", "18446744073709551615", "bash|811 91 18446744073709551615"},
    {"4194304", "69238848", "bash|811 91 98765 kernel"}, // a kernel thread's flags
    {"(bash)", "bash", {}},
    {"(bash)", ")bash(", {}},
    {") S", ")S", {}},
    {" 811 ", " 4294967296 ", {}},
    {" 64 ", "  ", {}},
    {" 27 ", QByteArray(" 2\0 ", 4), {}},
    {"98765", "18446744073709551616", {}},
};

constexpr uid_t stranger = 1234;
const uid_t self = ::geteuid();

/// A user namespace with that mapping, where the machine lets the test make one.
UniqueFd userNamespace(const QByteArray& mapping)
{
    const test::Child inside([] { ::unshare(CLONE_NEWUSER); });
    const QString process = u"/proc/%1/"_s.arg(inside.pid());
    QFile map(process + u"uid_map"_s);
    if (!mapping.isEmpty() &&
        !(map.open(QFile::WriteOnly | QFile::Unbuffered) && map.write(mapping) > 0))
        return UniqueFd();
    return UniqueFd(::open(qPrintable(process + u"ns/user"_s), O_RDONLY | O_CLOEXEC));
}

const QByteArray here;
/// Who made the other end, the user of sudo, whether he may answer, and the mapping of the
/// namespace that asks, if it is another one.
const test::Cases<uid_t, QByteArray, bool, QByteArray> peerUsers{
    {"the same user", self, {}, true, here},
    {"a stranger", stranger, {}, false, here},
    {"a stranger beside sudo", stranger, "1000", false, here},
    {"the user of sudo", stranger, "1234", true, here},
    {"no number", stranger, "1234x", false, here},
    {"both unmapped", self, {}, false, ""},
    {"mapped", self, {}, true, "5 " + QByteArray::number(self) + " 1"},
    {"unmapped, nobody mapped", stranger, "65534", false, "0 0 1"},
    {"unmapped, somebody mapped there", 70000U, "65534", false, "0 0 65536"},
    {"all mapped", test::nobody, "65534", true, "0 0 4294967295"},
};

/// Where a thread may run; 0 is the calling one.
cpu_set_t allowed(pid_t thread = 0)
{
    cpu_set_t processors = {};
    (void)::sched_getaffinity(thread, sizeof processors, &processors);
    return processors;
}

const cpu_set_t everywhere = allowed();

/// The same as a text: "all", or "here" where it is the calling thread's processor alone.
QString placeOf(pid_t thread)
{
    const cpu_set_t processors = allowed(thread);
    const bool isHere = CPU_ISSET(static_cast<unsigned>(::sched_getcpu()), &processors);
    return CPU_EQUAL(&processors, &everywhere)     ? u"all "_s
           : isHere && CPU_COUNT(&processors) == 1 ? u"here "_s
                                                   : u"elsewhere "_s;
}

/// Lets the calling thread run where it is alone, or everywhere.
void bind(bool isBound)
{
    cpu_set_t own = {};
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &own);
    (void)::sched_setaffinity(0, sizeof own, isBound ? &own : &everywhere);
}

/// Whether the main thread and the other are bound to their processors, the other's place and the
/// main thread's while they meet, theirs after it, and the main thread's once it is released too.
const test::Cases<bool, bool, QString> threads{
    {"both are free", false, false, u"here here all here all "_s},
    {"the main one is bound", true, false, u"all here here "_s}, // may be on another processor
    {"the other one was bound", false, true, u"here all all all all "_s},
};

} // namespace

class TestLinuxSys : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_directory;

private Q_SLOTS:
    void init()
    {
        m_directory = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(m_directory->path()) && QDir().mkdir(u"7"_s));
    }

    void anyNameIsParsed()
    {
        for (const QByteArray name : {"bash", "", "  Web Content ", "x) R 1 2 3 4 5",
                                      "a\n1 (b) S\n", "\xff\xc3(\x80\xed\xa0\x80"}) {
            const QByteArray line = QByteArray(savedLine).replace("bash", name);
            QCOMPARE(told(line), name + "|811 91 98765");
            // A line cut anywhere up to the end of its last needed field is damaged.
            test::feedTruncated(line.first(line.indexOf(" 98765 ") + 7),
                                [](const QByteArray& cut) { QCOMPARE(told(cut), QByteArray()); });
        }
    }

    void figuresAreParsedToTheirLimits_data() { test::addRows(changes); }
    void figuresAreParsedToTheirLimits()
    {
        const auto& [from, to, expected] = test::currentRow(changes);
        QCOMPARE(told(QByteArray(savedLine).replace(from, to)), expected);
    }

    void onlyNumericEntriesAreProcesses()
    {
        QVERIFY(!ProcFs("none").isOpen());
        QVERIFY(!ProcFs("7").nextPid());
        test::makeTree(u"7"_s, u"self/|12x/|-3/|+4/|4294967296/|4294967295/|0x5/|1 /"_s);
        ProcFs procFs("7");
        QCOMPARE(procFs.nextPid(), std::optional(4294967295U));
        QVERIFY(!procFs.nextPid());
        QCOMPARE(errno, 0);
    }

    void filesAndLinesOfAnyLengthAreRead()
    {
        ProcFs procFs(".");
        for (const int size : {0, 1, bufferSize - 2, bufferSize - 1, bufferSize, bufferSize + 1,
                               3 * bufferSize, 9 * bufferSize}) {
            QByteArray line;
            while (line.size() < size)
                line += QByteArray::number(line.size()) + ' ';
            line.truncate(size);
            for (const QByteArray end : {"", "\n", "\n\nx", "\nx\n"}) {
                const QByteArray content = size % 2 == 0 ? "a\n" + line + end : line + end;
                test::writeFile(u"7/stat"_s, content);
                QCOMPARE(procFs.readFile(7, "stat").value(), content.left(bufferSize));
                for (const int limit : {0, 1, bufferSize, bufferSize + 1, 10 * bufferSize})
                    QCOMPARE(procFs.readWholeFile(7, "stat", limit), content.left(limit));
                QByteArrayList shown;
                QVERIFY(procFs.readLines(
                    "7/stat", [&](QByteArrayView each) { shown.append(each.toByteArray()); }));
                QByteArrayList lines = content.split('\n');
                if (lines.last().isEmpty())
                    lines.removeLast();
                for (QByteArray& each : lines)
                    each.truncate(bufferSize);
                QCOMPARE(shown, lines);
            }
        }
        QVERIFY(!procFs.readLines("7/none", [](QByteArrayView) {}));
    }

    void residentPagesAreTheSecondField()
    {
        ProcFs procFs(".");
        QVERIFY(!procFs.residentPages(7)); // there is no file yet
        test::writeFile(u"7/statm"_s, "2129 1250 800 1 0 2 0\n");
        QCOMPARE(procFs.residentPages(7), std::optional<qint64>(1250));
        test::writeFile(u"7/statm"_s, "2129 12");
        QVERIFY(!procFs.residentPages(7));
    }

    void peers_data() { test::addRows(peerUsers); }
    void peers()
    {
        const auto& [name, maker, sudoUid, mayAnswer, mapping] = test::currentRow(peerUsers);
        if (self != 0 && maker != self)
            QSKIP("root alone can become somebody else");
        std::array<int, 2> ends{};
        QCOMPARE(::seteuid(maker), 0);
        const int error = ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
        QVERIFY(::seteuid(self) == 0 && ::prctl(PR_SET_DUMPABLE, 1) == 0 && error == 0);
        const UniqueFd own(ends[0]);
        const UniqueFd other(ends[1]);
        const QString answer = test::played([&own, user = sudoUid, map = mapping] {
            if (!map.isNull() && ::setns(userNamespace(map).get(), CLONE_NEWUSER) != 0)
                ::_exit(test::refusedCode);
            qputenv("SUDO_UID", user);
            const auto peer = platform::peerOf(own.get());
            return peer && peer->user != platform::PeerUser::Other ? u"yes"_s : u"no"_s;
        });
        if (answer.isEmpty())
            QSKIP("this machine refuses a user namespace");
        QCOMPARE(answer, mayAnswer ? u"yes"_s : u"no"_s);
    }

    void whatIsNoSocketMayNot()
    {
        const UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        QVERIFY(!platform::peerOf(file.get()) && !platform::peerOf(-1));
    }

    void threadsMeetAndPart_data() { test::addRows(threads); }
    void threadsMeetAndPart()
    {
        const auto& [name, isMainBound, isOtherBound, expected] = test::currentRow(threads);
        if (CPU_COUNT(&everywhere) < 2)
            QSKIP("there is one processor only");
        bind(isMainBound);
        const auto processor = platform::makeSharedProcessor();
        for (int turn = 0; turn < 2; ++turn) {
            QString places;
            std::thread([&, main = ::gettid(), meets = !isMainBound, isBound = isOtherBound] {
                bind(isBound);
                processor->gather();
                if (meets)
                    places += placeOf(0) + placeOf(main);
                if (isBound)
                    bind(false); // What was not taken is not given back.
                processor->release();
                places += placeOf(0);
            }).join();
            places += placeOf(0);
            processor->release();
            QCOMPARE(places + placeOf(0), expected);
        }
        bind(false);
    }
};

QTEST_GUILESS_MAIN(TestLinuxSys)
#include "tst_linux_sys.moc"
