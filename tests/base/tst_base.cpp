// Tests of the records' texts, of processor shares on a made-up clock, and of when the watchdog
// gives up.
#include "base/byte_size.h"
#include "base/process_cpu_table.h"
#include "base/system_records.h"
#include "base/watchdog.h"
#include "support/json.h"

#include <QDeadlineTimer>
#include <QTest>

#include <functional>
#include <limits>
#include <optional>

using namespace korvane;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

class BaseTest : public QObject
{
    Q_OBJECT

    /// What `display` makes of the values.
    static QString shown(const QList<qint64>& values, const std::function<QString(qint64)>& display)
    {
        QStringList texts;
        for (const qint64 value : values)
            texts.append(display(value));
        return texts.join(u'|');
    }

    /// The labels of -1 to 13.
    template <typename Value> static QString labels(QString (*label)(Value))
    {
        QString all;
        for (int value = -1; value <= 13; ++value)
            all += label(static_cast<Value>(value)) + u'|';
        return all + u'\n';
    }

private Q_SLOTS:
    void sizesAndShares()
    {
        const auto memory = [](qint64 bytes) {
            return ProcessSnapshot{1, 1, {}, {}, bytes, 0}.memoryDisplay();
        };
        QCOMPARE(shown({-1, 0, 1, 52428800, 104857599, 104857600, 1610612736}, memory),
                 u"—|—|0.0 MB|50.0 MB|100.0 MB|100 MB|1536 MB"_s);
        const auto share = [](qint64 value) {
            return ProcessSnapshot{1, 1, {}, {}, 0, double(value) / 100}.cpuDisplay();
        };
        QCOMPARE(shown({-1, 0, 1246, 10000}, share), u"—|0.0%|12.5%|100.0%"_s);
        const auto size = [](qint64 kib) {
            return UninstallEntry{0, {}, {}, {}, {}, {}, {}, kib}.sizeDisplay();
        };
        QCOMPARE(shown({-1, 0, 1, 2048, 102399, 102400, 1048575, 1048576, 3145728}, size),
                 u"—|—|0.0 MB|2.0 MB|100.0 MB|100 MB|1024 MB|1.00 GB|3.00 GB"_s);
        constexpr qint64 largest = std::numeric_limits<qint64>::max();
        QCOMPARE(sizeSum(largest - 1, 1), largest);
        QCOMPARE(sizeSum(largest, largest), largest);
    }

    void labelTables()
    {
        QString texts = labels(protocolLabel) + labels(familyLabel) + labels(tcpStateLabel) +
                        labels(serviceStateLabel) + labels(serviceStartTypeLabel) +
                        labels(uninstallSourceLabel) + labels(startupSourceKey) +
                        labels(signatureStatusLabel);
        for (int i = 0; i < 15; ++i) {
            const StartupItem item{StartupSource(i / 5), StartupCategory(i % 5), {}, {}, {}, false};
            texts += startupSourceLabel(item) + u' ' + startupSourcePath(item) + u'|';
        }
        QVERIFY(test::isAgreedOn(
            texts, "06ec626953065a5164a96c5ea7e746fb61091be0b9a6b2712aef91a8121b1881"));
    }

    void processorShares()
    {
        // Processors: listings of one process, "-" where it is not in one. Of each the clock and
        // the processor time in milliseconds, the percentage that it has to give, and the start
        // time where that is not 1.
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
            1: 0 0 -1, 1000 0 0, 1200 100 50
            1: 0 0 -1, 1000 0 0, -, 2000 0 -1, 3000 0 0)")) {
            ProcessCpuTable table;
            for (const QString& reading : row.section(u": "_s, 1).split(u", "_s)) {
                table.beginEnumeration(row.section(u':', 0, 0).toInt());
                const QStringList r = reading.split(u' ');
                if (r.size() > 1) {
                    const double percent = table.record({7, r.value(3, u"1"_s).toULongLong(),
                                                         r[1].toInt() * 1ms, r[0].toInt() * 1ms});
                    QVERIFY2(qFuzzyCompare(percent + 2, r[2].toDouble() + 2), qPrintable(row));
                }
                table.endEnumeration();
                QCOMPARE(table.isEmpty(), r.size() == 1);
            }
        }
    }

    void onlyTheVeryFirstListingHasToSettle()
    {
        ProcessCpuTable table;
        QVERIFY(table.settlingTime(0ms) == 0ms);
        table.beginEnumeration(1);
        table.record({6, 1, 0ms, 900ms});
        table.record({7, 1, 0ms, 1000ms});
        QVERIFY(table.settlingTime(1050ms) == 150ms);
        table.beginEnumeration(1);
        table.record({7, 1, 0ms, 1250ms});
        QVERIFY(table.settlingTime(1260ms) == 0ms);
    }

    void watchdog()
    {
        struct Case
        {
            const char* name;
            bool works, steps, isAbandoned, givesUp;
        };
        for (const Case& now : {Case{"stuck, and nobody waits", true, false, true, true},
                                {"stuck, but somebody waits", true, false, false, false},
                                {"slow", true, true, true, false},
                                {"waits for a person", false, false, true, false}}) {
            std::atomic<bool> hasGivenUp = false;
            // So long beside a step that a busy machine has time for one.
            const Watchdog watchdog([&] { return now.isAbandoned; }, [&] { hasGivenUp = true; },
                                    {5ms, 200});
            {
                const Watchdog::Work before; // the thread is there, as after an earlier request
            }
            std::optional<Watchdog::Work> work;
            if (now.works)
                work.emplace();
            for (const QDeadlineTimer deadline(1500); !deadline.hasExpired(); QTest::qSleep(1)) {
                if (now.steps)
                    Watchdog::step();
            }
            QTRY_VERIFY2(hasGivenUp == now.givesUp, now.name);
        }
    }
};

QTEST_GUILESS_MAIN(BaseTest)
#include "tst_base.moc"
