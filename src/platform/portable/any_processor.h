// Threads run wherever the system puts them.
#pragma once

#include "base/shared_processor.h"

namespace korvane::platform {

/// Does nothing.
class AnyProcessor final : public SharedProcessor
{
public:
    void gather() override {}
    void release() override {}
};

} // namespace korvane::platform
