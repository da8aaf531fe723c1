// Nothing starts with the session without a back end.
#include "platform/session.h"

namespace korvane {

bool platform::startsWithSession()
{
    return false;
}

OpResult platform::setStartsWithSession(bool /*starts*/)
{
    return {false, QStringLiteral("此平台不支持随会话启动。")};
}

} // namespace korvane
