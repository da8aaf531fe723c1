// Threads run wherever the system puts them.
#include "platform/shared_processor.h"

namespace korvane::platform {

struct SharedProcessor::Placement
{
};

SharedProcessor::SharedProcessor() = default;

SharedProcessor::~SharedProcessor() = default;

void SharedProcessor::gather() {}

void SharedProcessor::release() {}

} // namespace korvane::platform
