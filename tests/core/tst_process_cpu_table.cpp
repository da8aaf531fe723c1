// Tests of the processor shares that are computed from successive readings, on a made-up clock.
#include "base/process_cpu_table.h"
#include "support/json.h"

#include <QTest>

#include <algorithm>

using namespace korvane;
using namespace Qt::StringLiterals;

class ProcessCpuTableTest : public QObject
{
    Q_OBJECT

    static double read(ProcessCpuTable& table, double at, double cpu, double start = 1,
                       quint32 pid = 7)
    {
        using Ms = std::chrono::milliseconds;
        return table.record({pid, quint64(start), Ms(int(cpu)), Ms(int(at))});
    }

private Q_SLOTS:
    void figures()
    {
        // Processors: readings of one process, which are milliseconds on the clock and of processor
        // time, the percentage that the reading has to give, and the start time where it is not 1.
        for (const QString& row : test::rows(R"(
            1: 0 9000 -1, 1000 9500 50, 3000 9600 5
            4: 0 0 -1, 1000 2000 50
            0: 0 0 -1, 1000 500 50
            1: 0 0 -1, 1000 500 50, 2000 900 -1 2, 3000 1000 10 2
            2: 0 0 -1, 1000 5000 100
            1: 0 500 -1, 1000 100 0
            1: 500 0 -1, 500 10 -1
            1: 0 0 -1, 199 199 -1, 400 200 50
            1: 0 0 -1, 1000 100 10, 1010 110 10.891089108910892, 1100 110 10, 2000 600 50
            1: 0 0 -1, 1000 100 10, 1199 110 9.174311926605505
            1: 0 0 -1, 1000 0 0, 1200 100 50)")) {
            ProcessCpuTable table;
            for (const QString& reading : row.section(u": "_s, 1).split(u", "_s)) {
                const QStringList r = reading.split(u' ');
                table.beginEnumeration(row.section(u':', 0, 0).toInt());
                const double percent =
                    read(table, r[0].toDouble(), r[1].toDouble(), r.value(3, u"1"_s).toDouble());
                QVERIFY2(qFuzzyCompare(percent + 2, r[2].toDouble() + 2), qPrintable(row));
                table.endEnumeration();
            }
        }
    }

    void onlyTheVeryFirstEnumerationHasToSettle()
    {
        using Ms = std::chrono::milliseconds;
        ProcessCpuTable table;
        QVERIFY(table.settlingTime(Ms(0)) == Ms(0));
        table.beginEnumeration(1);
        read(table, 900, 0, 1, 6);
        read(table, 1000, 0);
        QVERIFY(table.settlingTime(Ms(1050)) == Ms(150));
        table.beginEnumeration(1);
        read(table, 1250, 0);
        QVERIFY(table.settlingTime(Ms(1260)) == Ms(0));
    }

    void frequentPollingSeesTheLoadEnd()
    {
        ProcessCpuTable table;
        for (int at = 0; at <= 6000; at += 100) {
            const double percent = read(table, at, std::min(at, 3000));
            if (at >= 200 && (at <= 3000 || at >= 3400))
                QCOMPARE(percent, at <= 3000 ? 100.0 : 0.0);
        }
    }

    void vanishedProcessesAreForgotten()
    {
        ProcessCpuTable table;
        QVERIFY(table.isEmpty());
        QList<double> figures;
        for (const QList<quint32>& pids : {QList<quint32>{7, 8}, {7}, {7, 8}}) {
            table.beginEnumeration(1);
            for (const quint32 pid : pids)
                figures.append(read(table, 1000.0 * double(figures.size()), 0, 1, pid));
            QVERIFY(!table.isEmpty());
            table.endEnumeration();
        }
        QCOMPARE(figures, (QList<double>{-1, -1, 0, 0, -1}));
        table.beginEnumeration(1);
        table.endEnumeration();
        QVERIFY(table.isEmpty());
    }
};

QTEST_GUILESS_MAIN(ProcessCpuTableTest)
#include "tst_process_cpu_table.moc"
