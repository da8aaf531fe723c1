// Letting two threads that take turns stay on one processor.
#pragma once

#include <memory>

namespace korvane::platform {

/// Brings two threads together for a hand-over, where only one of them ever works. Waking a thread on
/// another processor, one that sleeps above all, can cost ten times what a short answer does.
/// Linux: sched_setaffinity. Without a back end: does nothing. A failure changes nothing.
class SharedProcessor
{
public:
    /// Remembers the calling thread as the one that work is handed to.
    SharedProcessor();
    ~SharedProcessor();
    SharedProcessor(const SharedProcessor&) = delete;
    SharedProcessor& operator=(const SharedProcessor&) = delete;
    SharedProcessor(SharedProcessor&&) = delete;
    SharedProcessor& operator=(SharedProcessor&&) = delete;

    /// Keeps that thread, which has to be waiting, and the calling one on the processor that the
    /// latter runs on, until each calls release().
    void gather();

    /// Lets the calling thread run wherever it could before gather(): what it starts from now on
    /// inherits that.
    void release();

private:
    struct Placement;
    std::unique_ptr<Placement> m_placement;
};

} // namespace korvane::platform
