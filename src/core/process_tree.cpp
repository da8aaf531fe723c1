// Building, bounding and serialising the process forest.
#include "core/process_tree.h"

#include <QJsonObject>

#include <algorithm>
#include <utility>

namespace korvane {

ProcessTree::ProcessTree(const QList<ProcessSnapshot>& processes)
{
    for (const ProcessSnapshot& process : processes) {
        m_names.insert(process.pid, process.name);
        m_childPids[process.parentPid].append(process.pid);
    }
    for (const ProcessSnapshot& process : processes) {
        if (process.parentPid == process.pid || !m_names.contains(process.parentPid))
            addSubtree(process.pid);
    }
}

std::size_t ProcessTree::addNode(quint32 pid, qint64 depth)
{
    m_nodes.push_back({pid, depth, {}});
    return m_nodes.size() - 1;
}

void ProcessTree::addSubtree(quint32 rootPid)
{
    struct Frame
    {
        std::size_t node;
        QList<quint32> childPids;
        qsizetype next = 0;
    };
    std::vector<Frame> path;
    // A PID that is reached again stays without children.
    const auto descend = [&](std::size_t node, quint32 pid) {
        if (m_visited.contains(pid))
            return;
        m_visited.insert(pid);
        path.push_back({node, m_childPids.value(pid)});
    };

    m_roots.push_back(addNode(rootPid, 0));
    descend(m_roots.back(), rootPid);
    while (!path.empty()) {
        Frame& frame = path.back();
        if (frame.next == frame.childPids.size()) {
            path.pop_back();
            continue;
        }
        const quint32 childPid = frame.childPids.at(frame.next++);
        const Node& parent = m_nodes[frame.node];
        if (childPid == parent.pid)
            continue;
        const std::size_t child = addNode(childPid, parent.depth + 1);
        m_nodes[frame.node].children.push_back(child);
        descend(child, childPid);
    }
}

qint64 ProcessTree::depth() const
{
    qint64 depth = 0;
    for (const Node& node : m_nodes)
        depth = std::max(depth, node.depth + 1);
    return depth;
}

qint64 ProcessTree::textSizeBound() const
{
    constexpr qint64 indentStep = 4;
    constexpr qint64 nodeLines = 6;      // The braces, "name", "pid", "children" and its bracket.
    constexpr qint64 nodeMarks = 64;     // Keys, punctuation, line ends, the PID: at most 52.
    constexpr qint64 outerMarks = 64;    // All that is around the roots: at most 59.
    constexpr qint64 characterBytes = 6; // As \uXXXX.
    qint64 size = outerMarks;
    for (const Node& node : m_nodes) {
        const qint64 indent = indentStep * (2 * node.depth + 3); // Of the innermost line.
        size += nodeLines * indent + nodeMarks + characterBytes * nameOf(node.pid).size();
    }
    return size;
}

QJsonArray ProcessTree::toJson() const
{
    std::vector<QJsonObject> objects(m_nodes.size());
    const auto arrayOf = [&objects](const std::vector<std::size_t>& nodes) {
        QJsonArray array;
        for (const std::size_t node : nodes)
            array.append(std::exchange(objects[node], {}));
        return array;
    };
    for (std::size_t i = m_nodes.size(); i-- > 0;) {
        const Node& node = m_nodes[i];
        QJsonObject& object = objects[i];
        object.insert(QStringLiteral("pid"), static_cast<qint64>(node.pid));
        object.insert(QStringLiteral("name"), nameOf(node.pid));
        if (!node.children.empty())
            object.insert(QStringLiteral("children"), arrayOf(node.children));
    }
    return arrayOf(m_roots);
}

QString ProcessTree::nameOf(quint32 pid) const
{
    return m_names.value(pid, QStringLiteral("(未知)"));
}

} // namespace korvane
