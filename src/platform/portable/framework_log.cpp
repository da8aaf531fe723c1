// Makes the framework's log ready while the configuration is out of its sight.
#include "platform/portable/framework_log.h"

#include <QByteArray>
#include <QLoggingCategory>

namespace korvane {

void platform::readLogRulesWithoutHome()
{
    constexpr const char* variable = "XDG_CONFIG_HOME";
    const bool isSet = qEnvironmentVariableIsSet(variable);
    const QByteArray before = qgetenv(variable);
    qputenv(variable, "/dev/null"); // in which no file can be
    (void)QLoggingCategory::defaultCategory();
    if (isSet)
        qputenv(variable, before);
    else
        qunsetenv(variable);
}

} // namespace korvane
