// The result of an operation that changes something.
#pragma once

#include <QString>

namespace korvane {

/// What came of a write operation, and the text to show.
struct OpResult
{
    bool ok = false;
    QString message; ///< Why it failed; may carry a note when it succeeded.
};

} // namespace korvane
