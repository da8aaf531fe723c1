// Tests the reading and parsing of /proc on saved, damaged and hostile text, and on directories of
// its shape.
#include "platform/linux/sys/proc_fs.h"

#include "support/damage.h"
#include "support/system.h"

#include <limits>

using namespace korvane;
using namespace linux_platform;
using namespace Qt::StringLiterals;

namespace {

constexpr int bufferSize = 8192;

/// The fields of a saved line that stand after the name, from the state on.
const QByteArrayList savedFields =
    QByteArray(
        "S 811 4711 4711 34817 5120 4194304 3155 921 2 1 64 27 3 1 20 0 1 0 98765 8720384 "
        "1250 18446744073709551615 1 2 0 0 0 65536 3686404 1266761467 1 0 0 17 1 0 0 0 0 0 1 "
        "2 3 4 5 6 7 0")
        .split(' ');
QByteArray statLine(const QByteArray& name, const QByteArrayList& fields = savedFields)
{
    return "4711 (" + name + ") " + fields.join(' ') + '\n';
}

/// The saved line with some fields changed.
QByteArray statWith(const QMap<int, QByteArray>& changes)
{
    QByteArrayList fields = savedFields;
    for (const int field : changes.keys())
        fields[field] = changes.value(field);
    return statLine("bash", fields);
}

} // namespace

class TestProcFs : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_directory = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir(m_directory->path()).mkdir(u"7"_s));
    }

    void anyNameIsParsed()
    {
        for (const QByteArray name : {"bash", "", "  Web Content ", "x) R 1 2 3 4 5",
                                      "a\n1 (b) S\n", "\xff\xc3(\x80\xed\xa0\x80"}) {
            const QByteArray line = statLine(name);
            const auto stat = parseProcStat(line);
            QVERIFY2(stat, line.constData());
            QCOMPARE(stat->shortName.toByteArray(), name);
            QCOMPARE(stat->parentPid, 811U);
            QCOMPARE(stat->cpuTicks, 64U + 27U);
            QCOMPARE(stat->startTicks, 98765U);
            QVERIFY(!stat->isKernelThread);

            // A line cut anywhere up to the end of its last needed field is damaged.
            test::feedTruncated(line.first(line.indexOf(" 98765 ") + 7), [](const QByteArray& cut) {
                QVERIFY2(!parseProcStat(cut), cut.constData());
            });
        }
    }

    void figuresAreParsedToTheirLimits()
    {
        const auto stat = parseProcStat(statWith({{1, "4294967295"},
                                                  {6, "69238848"}, // a kernel thread's flags
                                                  {19, "18446744073709551615"}}));
        QVERIFY(stat);
        QVERIFY(stat->isKernelThread);
        QCOMPARE(stat->parentPid, std::numeric_limits<quint32>::max());
        QCOMPARE(stat->startTicks, std::numeric_limits<quint64>::max());
    }

    void damagedLineIsRefused()
    {
        const QByteArray noBlank = statLine("bash").replace(") S", ")S");
        for (const QByteArray& line :
             {QByteArray("4711 bash S 811 4711\n"), QByteArray("4711 )bash( S 811\n"),
              QByteArray("4711 (bash)"), noBlank, statWith({{1, "4294967296"}}),
              statWith({{1, "-1"}}), statWith({{6, "0x40"}}), statWith({{11, ""}}),
              statWith({{12, QByteArray("2\0", 2)}}), statWith({{19, "18446744073709551616"}}),
              statWith({{19, "1.5"}})})
            QVERIFY2(!parseProcStat(line), line.constData());
    }

    void trailingNulsAreDropped()
    {
        QCOMPARE(commandLineFromCmdline(QByteArray()), QString());
        QCOMPARE(commandLineFromCmdline(QByteArray("\0\0\0", 3)), QString());
        QCOMPARE(commandLineFromCmdline(QByteArray("a\0b", 3)), u"a b"_s);
    }

    void onlyNumericEntriesAreProcesses()
    {
        QVERIFY(!ProcFs(path("none").constData()).isOpen());
        const QByteArray root = path("7");
        QVERIFY(!ProcFs(root.constData()).nextPid());
        for (const char* name :
             {"self", "12x", "-3", "+4", "4294967296", "4294967295", "0x5", "1 "})
            QVERIFY(QDir().mkpath(QFile::decodeName(root + '/' + name)));
        ProcFs procFs(root.constData());
        QCOMPARE(procFs.nextPid(), std::optional(4294967295U));
        QVERIFY(!procFs.nextPid());
        QCOMPARE(errno, 0);
    }

    void filesAreReadToTheirLimit()
    {
        ProcFs procFs(path().constData());
        for (const int size :
             {0, 1, bufferSize - 1, bufferSize, bufferSize + 1, 5 * bufferSize + 3}) {
            QByteArray content;
            while (content.size() < size)
                content += QByteArray::number(content.size()) + '\n';
            content.truncate(size);
            write("7/stat", content);
            const auto first = procFs.readFile(7, "stat");
            QVERIFY(first);
            QCOMPARE(first->toByteArray(), content.left(bufferSize));
            for (const int limit : {0, 1, bufferSize, bufferSize + 1, 10 * bufferSize})
                QCOMPARE(procFs.readWholeFile(7, "stat", limit),
                         std::optional(content.left(limit)));
        }
    }

    void linesOfAnyLengthAreShown()
    {
        ProcFs procFs(path().constData());
        for (const int size : {0, 1, bufferSize - 1, bufferSize, bufferSize + 1, 3 * bufferSize}) {
            for (const QByteArray end : {"", "\n", "\n\nx", "\nx\n"}) {
                const QByteArray content = "a\n" + QByteArray(size, 'b') + end;
                write("7/maps", content);
                QByteArrayList shown;
                QVERIFY(procFs.readLines(
                    "7/maps", [&](QByteArrayView line) { shown.append(line.toByteArray()); }));
                QByteArrayList lines = content.split('\n');
                if (lines.last().isEmpty())
                    lines.removeLast();
                for (QByteArray& line : lines)
                    line.truncate(bufferSize);
                QCOMPARE(shown, lines);
            }
        }
        QVERIFY(!procFs.readLines("7/none", [](QByteArrayView) {}));
    }

    void residentPagesAreTheSecondField()
    {
        ProcFs procFs(path().constData());
        QVERIFY(!procFs.residentPages(7)); // there is no file yet
        write("7/statm", "2129 1250 800 1 0 2 0\n");
        QCOMPARE(procFs.residentPages(7), std::optional<qint64>(1250));
        write("7/statm", "2129 12");
        QVERIFY(!procFs.residentPages(7));
    }

private:
    QByteArray path(const QByteArray& name = {}) const
    {
        return QFile::encodeName(m_directory->path()) + '/' + name;
    }

    void write(const QByteArray& name, const QByteArray& content) const
    {
        test::writeFile(QFile::decodeName(path(name)), content);
    }

    std::unique_ptr<QTemporaryDir> m_directory;
};

QTEST_GUILESS_MAIN(TestProcFs)
#include "tst_proc_fs.moc"
