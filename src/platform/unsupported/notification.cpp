// No messages without a back end.
#include "platform/notification.h"

namespace korvane {

std::unique_ptr<QObject> platform::showNotification(const QString& /*title*/,
                                                    const QString& /*text*/)
{
    return nullptr;
}

} // namespace korvane
