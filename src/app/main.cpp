// The process entry: names the application, registers the tools and serves standard input.
#include "app/identity.h"
#include "mcp/mcp_server.h"
#include "platform/standard_streams.h"
#include "tools/catalog.h"

#include <QCoreApplication>

#include <clocale>
#include <csignal>

namespace {

/// Lets a write to a closed pipe fail like any other write instead of ending the process.
void ignoreBrokenPipeSignal()
{
#ifdef SIGPIPE
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
#endif
}

/// Makes the locale a UTF-8 one, as the framework does itself, which however says so on standard
/// error: the bare environment that clients start a server with names no encoding at all.
void useUtf8Locale()
{
    static_cast<void>(std::setlocale(LC_ALL, ""));
    const QByteArray name = QByteArray(std::setlocale(LC_CTYPE, nullptr)).toUpper();
    if (!name.contains("UTF-8") && !name.contains("UTF8"))
        qputenv(qEnvironmentVariableIsEmpty("LC_ALL") ? "LC_CTYPE" : "LC_ALL", "C.UTF-8");
}

void setIdentity()
{
    using namespace korvane;
    QCoreApplication::setApplicationName(identity::applicationName);
    QCoreApplication::setApplicationVersion(identity::version);
    QCoreApplication::setOrganizationDomain(identity::organizationDomain);
    QCoreApplication::setOrganizationName(identity::applicationName);
}

} // namespace

int main(int argc, char* argv[])
{
    const auto streams = korvane::platform::openStandardStreams();
    ignoreBrokenPipeSignal();
    useUtf8Locale();
    const QCoreApplication application(argc, argv);
    setIdentity();
    korvane::McpServer server;
    korvane::registerKorvaneTools(server);
    return server.runStdio(*streams);
}
