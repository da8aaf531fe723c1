// Tests of the watchdog: when it gives up, and when not.
#include "base/watchdog.h"

#include <QDeadlineTimer>
#include <QTest>

#include <atomic>
#include <optional>

using namespace korvane;
using namespace std::chrono_literals;

class WatchdogTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void givesUp_data()
    {
        for (const char* column : {"works", "steps", "isAbandoned", "givesUp"})
            QTest::addColumn<bool>(column);
        QTest::newRow("stuck, and nobody waits") << true << false << true << true;
        QTest::newRow("stuck, but somebody waits") << true << false << false << false;
        QTest::newRow("slow") << true << true << true << false;
        QTest::newRow("waits for a person") << false << false << true << false;
    }

    void givesUp()
    {
        QFETCH(bool, works);
        QFETCH(bool, steps);
        QFETCH(bool, isAbandoned);
        std::atomic<bool> hasGivenUp = false;
        // So long beside a step that a busy machine has time for one.
        const Watchdog::Limits limits{5ms, 200};
        const Watchdog watchdog([=] { return isAbandoned; }, [&] { hasGivenUp = true; }, limits);
        {
            const Watchdog::Work before; // the thread is there, as after an earlier request
        }
        std::optional<Watchdog::Work> work;
        if (works)
            work.emplace();
        QDeadlineTimer deadline(1500);
        while (!deadline.hasExpired()) {
            QTest::qSleep(1);
            if (steps)
                Watchdog::step();
        }
        QFETCH(bool, givesUp);
        QTRY_COMPARE(hasGivenUp.load(), givesUp);
    }
};

QTEST_GUILESS_MAIN(WatchdogTest)
#include "tst_watchdog.moc"
