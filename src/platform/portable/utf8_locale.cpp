// Sets the locale, and what child processes inherit of it.
#include "platform/portable/utf8_locale.h"

#include <QByteArray>

#include <clocale>

namespace korvane {

void platform::useUtf8Locale()
{
    static_cast<void>(std::setlocale(LC_ALL, ""));
    const QByteArray name = QByteArray(std::setlocale(LC_CTYPE, nullptr)).toUpper();
    if (!name.contains("UTF-8") && !name.contains("UTF8"))
        qputenv(qEnvironmentVariableIsEmpty("LC_ALL") ? "LC_CTYPE" : "LC_ALL", "C.UTF-8");
}

} // namespace korvane
