// Tests the reading and parsing of /proc on saved, damaged and hostile text, and on directories of
// its shape.
#include "platform/linux/sys/proc_fs.h"

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
    {" 811 ", " -1 ", {}},
    {"4194304", "0x40", {}},
    {" 64 ", "  ", {}},
    {" 27 ", QByteArray(" 2\0 ", 4), {}},
    {"98765", "18446744073709551616", {}},
    {"98765", "1.5", {}},
};

} // namespace

class TestProcFs : public QObject
{
    Q_OBJECT

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

    void trailingNulsAreDropped()
    {
        for (const QByteArray& end : {QByteArray(), QByteArray(3, '\0')}) {
            QCOMPARE(commandLineFromCmdline(end), QString());
            QCOMPARE(commandLineFromCmdline(QByteArray("a\0b", 3) + end), u"a b"_s);
        }
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

private:
    std::unique_ptr<QTemporaryDir> m_directory;
};

QTEST_GUILESS_MAIN(TestProcFs)
#include "tst_proc_fs.moc"
