// The process entry: names the application, registers the tools and serves standard input.
#include "app/identity.h"
#include "mcp/mcp_server.h"
#include "tools/catalog.h"

#include <QCoreApplication>

#include <csignal>

namespace {

/// Lets a write to a closed pipe fail like any other write instead of ending the process.
void ignoreBrokenPipeSignal()
{
#ifdef SIGPIPE
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
#endif
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
    ignoreBrokenPipeSignal();
    const QCoreApplication application(argc, argv);
    setIdentity();
    korvane::McpServer server;
    korvane::registerKorvaneTools(server);
    return server.runStdio();
}
