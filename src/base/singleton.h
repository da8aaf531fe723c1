// The base that gives each service class its one instance.
#pragma once

namespace korvane {

/// Second base of a service class, with the class itself as argument. It carries no data.
template <typename T> class Singleton
{
public:
    /// The one `T` of the process: created on the first call (thread-safe), destroyed at exit.
    static T& instance()
    {
        static T object;
        return object;
    }
};

} // namespace korvane
