// The process entry: names the application, registers the tools and serves standard input.
#include "base/identity.h"
#include "mcp/mcp_server.h"
#include "platform/process_setup.h"
#include "tools/catalog.h"

#include <QCoreApplication>

namespace {

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
    const auto streams = korvane::platform::prepareProcess();
    const auto processor = korvane::platform::makeSharedProcessor();
    const QCoreApplication application(argc, argv);
    setIdentity();
    korvane::McpServer server;
    korvane::registerKorvaneTools(server);
    return server.runStdio(*streams, *processor);
}
