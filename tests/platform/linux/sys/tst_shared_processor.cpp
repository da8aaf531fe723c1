// Tests that two threads meet on one processor for a hand-over, and are free again after it.
#include "platform/process_setup.h"
#include "support/table.h"

#include <thread>

#include <sched.h>
#include <unistd.h>

using namespace korvane;
using namespace Qt::StringLiterals;

namespace {

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
    cpu_set_t here = {};
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &here);
    (void)::sched_setaffinity(0, sizeof here, isBound ? &here : &everywhere);
}

/// Whether the main thread and the other are bound to their processors, the other's place and the
/// main thread's while they meet, theirs after it, and the main thread's once it is released too.
const test::Cases<bool, bool, QString> threads{
    {"both are free", false, false, u"here here all here all "_s},
    {"the main one is bound", true, false, u"all here here "_s}, // may be on another processor
    {"the other one was bound", false, true, u"here all all all all "_s},
};

} // namespace

class TestSharedProcessor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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

QTEST_GUILESS_MAIN(TestSharedProcessor)
#include "tst_shared_processor.moc"
