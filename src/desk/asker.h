// Who asks, read from the system and never from the request.
#pragma once

#include "platform/peer.h"

#include <QString>
#include <QStringList>

namespace korvane::desk {

/// The program at the other end of a connection. Its texts are fit to be shown in a line: the names
/// are the asker's own choice.
struct Asker
{
    quint32 pid = 0;
    QString executable;       ///< Full path; empty where it cannot be read.
    QStringList chain;        ///< "korvane-mcp (4711)", then those that started it: "node", "code".
    bool isOwnServer = false; ///< Its executable is the korvane-mcp beside the desk.
    bool isKnown = false;     ///< Its executable could be read.

    /// "korvane-mcp (4711) ← node ← code"; the PID alone where nothing else is known.
    QString chainText() const;

    /// What is amiss about it, in the person's language: not our own server, or not to be told. Empty
    /// when nothing is.
    QString warning() const;
};

/// The full path of the server that came with the desk, whether it is there or not.
QString ownServerPath();

/// Who `peer` is, as the system has it now. Main thread only.
Asker askerOf(const platform::Peer& peer);

} // namespace korvane::desk
