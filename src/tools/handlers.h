// The tool handlers, declared so that the catalog can name them.
#pragma once

#include "mcp/mcp_server.h"

namespace korvane {

// All run on the main thread; failure is a thrown std::runtime_error (see ToolHandler).

/// Name, version, platform and paths of the program; reads nothing but the framework's own
/// system queries, and cannot fail.
QJsonObject toolGetAppInfo(const QJsonObject& args, const ProgressCallback& progress);

/// Every process, with the signature verdicts that are cached already. Blocks for half a second
/// while no processor samples exist. Fails with the back end's text.
QJsonObject toolListProcesses(const QJsonObject& args, const ProgressCallback& progress);

/// The processes nested by parent. Fails with the back end's text, and for a tree whose text
/// would pass ProcessTree::maxTextSize.
QJsonObject toolGetProcessTree(const QJsonObject& args, const ProgressCallback& progress);

/// The command line of process "pid"; an empty one, with a note, when it cannot be read. Fails for
/// a "pid" that is not a positive integer.
QJsonObject toolGetProcessCommandLine(const QJsonObject& args, const ProgressCallback& progress);

/// Every TCP and UDP endpoint with its owner. Fails with the back end's text.
QJsonObject toolListNetworkConnections(const QJsonObject& args, const ProgressCallback& progress);

/// The endpoints whose local port is "port". Fails for a "port" outside 1..65535, and with the back
/// end's text.
QJsonObject toolFindProcessByPort(const QJsonObject& args, const ProgressCallback& progress);

/// The programs started automatically. Fails with the back end's text.
QJsonObject toolListStartupItems(const QJsonObject& args, const ProgressCallback& progress);

/// The installed software. Fails with the back end's text.
QJsonObject toolListUninstallEntries(const QJsonObject& args, const ProgressCallback& progress);

/// The services of the operating system. Fails with the back end's text.
QJsonObject toolListServices(const QJsonObject& args, const ProgressCallback& progress);

/// The machine's load, measured over a quarter of a second, for which it blocks. Cannot fail: what
/// the back end does not know is 0.
QJsonObject toolGetSystemMetrics(const QJsonObject& args, const ProgressCallback& progress);

/// Signature verdicts of "paths", or of every running executable, which fills the caches that
/// toolListProcesses() shows. Progress objects: "verified" of "total". Cannot fail.
QJsonObject toolVerifySignatures(const QJsonObject& args, const ProgressCallback& progress);

/// The largest files below the directory "root_path" (the home), walked whole: at most "max_results"
/// (50) of at least "min_size_bytes" (50 MiB). Progress objects: every 500 files. Fails when there is
/// no such directory.
QJsonObject toolFindLargeFiles(const QJsonObject& args, const ProgressCallback& progress);

/// How much there is of each kind of junk, and some of its paths. Progress objects: one a category.
/// Cannot fail: what cannot be read counts nothing.
QJsonObject toolScanJunk(const QJsonObject& args, const ProgressCallback& progress);

// The following change the machine, each only after the user has granted exactly that in the desktop
// program; they block for as long as the user takes. Each fails for arguments that name nothing
// there is, for a refusal, with its text, and with the back end's text.

/// Ends process "pid".
QJsonObject toolKillProcess(const QJsonObject& args, const ProgressCallback& progress);

/// Ends every process that holds the local "port", but this one. One that cannot be ended is no
/// failure but listed.
QJsonObject toolKillByPort(const QJsonObject& args, const ProgressCallback& progress);

/// Enables or disables the startup item "name" of "source"; asks nobody when it is as it should be.
QJsonObject toolSetStartupItemEnabled(const QJsonObject& args, const ProgressCallback& progress);

/// Closes the handles that other processes have on the file "path"; asks nobody when there is none.
QJsonObject toolUnlockFile(const QJsonObject& args, const ProgressCallback& progress);

/// Moves the junk of "category_ids", as it is found now, to the recycle bin. Leaves out categories
/// whose programs run, and unknown ones; asks nobody when nothing is left.
QJsonObject toolCleanJunk(const QJsonObject& args, const ProgressCallback& progress);

/// Start, stop and set the start type of the service "name", matched in any letter case; they ask
/// nobody when it is as it should be.
QJsonObject toolStartService(const QJsonObject& args, const ProgressCallback& progress);
QJsonObject toolStopService(const QJsonObject& args, const ProgressCallback& progress);
QJsonObject toolSetServiceStartType(const QJsonObject& args, const ProgressCallback& progress);

} // namespace korvane
