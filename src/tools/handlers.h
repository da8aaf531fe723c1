// The tool handlers, declared so that the catalog can name them.
#pragma once

#include "mcp/mcp_server.h"

namespace korvane {

QJsonObject toolGetAppInfo(const QJsonObject& args, const ProgressCallback& progress);

QJsonObject toolListProcesses(const QJsonObject& args, const ProgressCallback& progress);
QJsonObject toolGetProcessTree(const QJsonObject& args, const ProgressCallback& progress);
QJsonObject toolGetProcessCommandLine(const QJsonObject& args, const ProgressCallback& progress);

} // namespace korvane
