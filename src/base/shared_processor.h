// Letting two threads that take turns stay on one processor.
#pragma once

namespace korvane {

/// Brings two threads together for a hand-over, where only one of them ever works. Waking a thread on
/// another processor, one that sleeps above all, can cost ten times what a short answer does.
class SharedProcessor
{
public:
    virtual ~SharedProcessor() = default;

    /// Keeps the main thread, which has to be waiting, and the calling one on the processor that the
    /// latter runs on, until each calls release(). Does nothing where the main thread may not run
    /// there, nor does a failure change anything.
    virtual void gather() = 0;

    /// Lets the calling thread run wherever it could before gather(): what it starts from now on
    /// inherits that.
    virtual void release() = 0;

protected:
    SharedProcessor() = default;
    SharedProcessor(const SharedProcessor&) = default;
    SharedProcessor& operator=(const SharedProcessor&) = default;
    SharedProcessor(SharedProcessor&&) = default;
    SharedProcessor& operator=(SharedProcessor&&) = default;
};

} // namespace korvane
