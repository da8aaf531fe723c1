// Tests that two threads meet on one processor for a hand-over, and are free again after it.
#include "platform/process_setup.h"

#include <QTest>

#include <thread>

#include <sched.h>
#include <unistd.h>

namespace {

/// Where a thread may run; 0 is the calling one.
cpu_set_t allowed(pid_t thread = 0)
{
    cpu_set_t processors = {};
    (void)::sched_getaffinity(thread, sizeof processors, &processors);
    return processors;
}

bool areEqual(const cpu_set_t& one, const cpu_set_t& other)
{
    return CPU_EQUAL(&one, &other) != 0;
}

} // namespace

class TestSharedProcessor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void threadsMeetAndPart()
    {
        const cpu_set_t everywhere = allowed();
        if (CPU_COUNT(&everywhere) < 2)
            QSKIP("there is one processor only");
        const pid_t worker = ::gettid();
        const auto processor = korvane::platform::makeSharedProcessor();
        for (int turn = 0; turn < 2; ++turn) {
            bool haveMet = false;
            bool isFree = false;
            std::thread([&] {
                processor->gather();
                cpu_set_t here = {};
                CPU_SET(static_cast<unsigned>(::sched_getcpu()), &here);
                haveMet = areEqual(allowed(), here) && areEqual(allowed(worker), here);
                processor->release();
                isFree = areEqual(allowed(), everywhere);
            }).join();
            QVERIFY(haveMet);
            QVERIFY(isFree);
            QVERIFY(!areEqual(allowed(), everywhere)); // until it says so itself
            processor->release();
            QVERIFY(areEqual(allowed(), everywhere));
        }
    }

    void eachGetsBackItsOwn()
    {
        const cpu_set_t everywhere = allowed();
        const auto processor = korvane::platform::makeSharedProcessor();
        cpu_set_t one = {};
        CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
        QCOMPARE(::sched_setaffinity(0, sizeof one, &one), 0);
        bool isFree = false;
        std::thread([&] {
            (void)::sched_setaffinity(0, sizeof everywhere, &everywhere);
            processor->gather();
            processor->release();
            isFree = areEqual(allowed(), everywhere);
        }).join();
        processor->release();
        const bool isAsBefore = areEqual(allowed(), one);
        QCOMPARE(::sched_setaffinity(0, sizeof everywhere, &everywhere), 0);
        QVERIFY(isFree);
        QVERIFY(isAsBefore);
    }

    void aSingleProcessorIsLeftAlone()
    {
        const cpu_set_t everywhere = allowed();
        cpu_set_t one = {};
        CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
        QCOMPARE(::sched_setaffinity(0, sizeof one, &one), 0);
        const auto processor = korvane::platform::makeSharedProcessor();
        processor->gather();
        QCOMPARE(::sched_setaffinity(0, sizeof everywhere, &everywhere), 0);
        processor->release(); // gives back nothing that gather() did not take
        QVERIFY(areEqual(allowed(), everywhere));
    }
};

QTEST_GUILESS_MAIN(TestSharedProcessor)
#include "tst_shared_processor.moc"
