// Sizes in the units that the user reads.
#pragma once

#include <QString>

namespace korvane {

double mebibytes(qint64 bytes);

/// With one decimal below 100 and none from 100 on: "3.5 MB", "250 MB".
QString mebibytesDisplay(double mib);

/// As mebibytesDisplay() below 1024 MB, from there on with two decimals: "1.25 GB".
QString sizeDisplay(double mib);

/// How much of a whole is used, in GiB: "3.5 / 15.6 GB".
QString gibibytesDisplay(quint64 used, quint64 total);

/// The sum of two sizes that are not negative, or the largest number where that would be passed:
/// sparse files claim any size.
qint64 sizeSum(qint64 first, qint64 second);

} // namespace korvane
