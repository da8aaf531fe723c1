// The asker's chain of programs, and whether it is the server that came with the desk.
#include "desk/asker.h"

#include "consent/shown_text.h"
#include "platform/processes.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace korvane::desk {

using namespace Qt::StringLiterals;

/// Whatever the system adds to the names of programs.
QString ownServerPath()
{
    const QFileInfo desk(QCoreApplication::applicationFilePath());
    const QString suffix = desk.suffix().isEmpty() ? QString() : u'.' + desk.suffix();
    return desk.canonicalPath() + u"/korvane-mcp"_s + suffix;
}

QString Asker::chainText() const
{
    return chain.isEmpty() ? u"PID %1"_s.arg(pid) : chain.join(u" ← ");
}

QString Asker::warning() const
{
    if (!isKnown)
        return QCoreApplication::translate("desk", "警告: 无法得知请求来自哪个程序。");
    if (!isOwnServer)
        return QCoreApplication::translate(
            "desk", "警告: 请求来自别的程序, 不是与授权台一同安装的 korvane-mcp。");
    return {};
}

Asker askerOf(const platform::Peer& peer)
{
    Asker asker;
    asker.pid = peer.pid;
    asker.executable = consent::shownText(peer.executable);
    asker.isKnown = !peer.executable.isEmpty();
    asker.isOwnServer = platform::isSamePath(peer.executable, ownServerPath());
    for (const ProcessSnapshot& process : platform::processAndAncestors(peer.pid)) {
        // Else the name of a single file could look like a chain of programs.
        const QString name = consent::shownText(process.name).replace(u'←', u'\ufffd');
        asker.chain.append(
            process.pid == peer.pid ? u"%1 (%2)"_s.arg(name, QString::number(peer.pid)) : name);
    }
    return asker;
}

} // namespace korvane::desk
