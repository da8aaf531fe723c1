// Texts and sums of sizes.
#include "base/byte_size.h"

#include <QtNumeric>

#include <limits>

namespace korvane {

double mebibytes(qint64 bytes)
{
    return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

QString mebibytesDisplay(double mib)
{
    return QString::number(mib, 'f', mib < 100 ? 1 : 0) + QStringLiteral(" MB");
}

QString sizeDisplay(double mib)
{
    if (mib < 1024)
        return mebibytesDisplay(mib);
    return QString::number(mib / 1024.0, 'f', 2) + QStringLiteral(" GB");
}

QString gibibytesDisplay(quint64 used, quint64 total)
{
    const auto gib = [](quint64 bytes) {
        return QString::number(static_cast<double>(bytes) / 1073741824.0, 'f', 1);
    };
    return QStringLiteral("%1 / %2 GB").arg(gib(used), gib(total));
}

qint64 sizeSum(qint64 first, qint64 second)
{
    qint64 sum = 0;
    return qAddOverflow(first, second, &sum) ? std::numeric_limits<qint64>::max() : sum;
}

} // namespace korvane
