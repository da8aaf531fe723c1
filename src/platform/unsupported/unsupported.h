// What the operations without a back end share: the once-only log line and the failed listing.
#pragma once

#include <QDebug>
#include <QList>
#include <QString>

namespace korvane::unsupported {

/// Writes `text` (UTF-8) to the framework's log unless `logged` says that it has been.
inline void logOnce(bool& logged, const char* text)
{
    if (logged)
        return;
    logged = true;
    qInfo("%s", text);
}

/// The empty list of an enumeration without a back end; its reason goes to `error` if not null.
template <typename Record> QList<Record> failedListing(QString* error, const QString& reason)
{
    if (error != nullptr)
        *error = reason;
    return {};
}

} // namespace korvane::unsupported
