// What became of the entries that were to go to the recycle bin, and the text that says so.
#pragma once

#include "base/op_result.h"

#include <QString>

#include <utility>
#include <vector>

namespace korvane::platform {

/// Counts entries, and the reasons for which some stayed.
class RecycleTally
{
public:
    /// An entry is in the recycle bin.
    void addMoved() { ++m_moved; }

    /// An entry is in the recycle bin, but part of the original had changed meanwhile and stayed too.
    void addMovedInPart();

    /// An entry stayed for this reason, given in a word or two.
    void addSkipped(const QString& why);

    /// Ok unless something was to be moved and nothing was; the message tells the numbers.
    OpResult result() const;

private:
    QString skippedText() const;

    qint64 m_moved = 0;
    qint64 m_inPart = 0;
    qint64 m_skipped = 0;
    std::vector<std::pair<QString, qint64>> m_reasons; ///< In the order in which they came up.
};

} // namespace korvane::platform
