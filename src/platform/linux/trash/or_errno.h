// How functions return what they may fail to get.
#pragma once

#include <optional>
#include <utility>

namespace korvane::linux_platform {

/// A value, or the errno for which there is none.
template <typename T> class OrErrno : public std::optional<T>
{
public:
    OrErrno(T value) : std::optional<T>(std::move(value)) {}
    OrErrno(int error) : m_error(error) {}

    /// 0 where there is a value.
    int error() const { return m_error; }

private:
    int m_error = 0;
};

} // namespace korvane::linux_platform
