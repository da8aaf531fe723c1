// Building, measuring and serialising the process forest.
#include "tools/process_tree.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <utility>

namespace korvane {

namespace {

/// Columns by which the indented form shifts each level.
constexpr qint64 indentStep = 4;

qint64 lengthOf(qint64 number)
{
    return QString::number(number).size();
}

/// Bytes of `text` as a JSON string, quotes included.
qint64 lengthOf(const QString& text)
{
    constexpr qint64 brackets = 2;
    return QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact).size() - brackets;
}

/// Bytes of an indented "children" or "roots" array around its elements, at the column `indent`
/// of its key: the key's line, the closing line, and the comma that its last element lacks.
qint64 arrayFrameSize(qint64 indent, QLatin1String key)
{
    const qint64 opening = indent + key.size() + qint64{6}; // "": [\n
    const qint64 closing = indent + qint64{3};              // ],\n
    return opening + closing - 1;
}

} // namespace

ProcessTree::ProcessTree(const QList<ProcessSnapshot>& processes) : m_processCount(processes.size())
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

qint64 ProcessTree::textSize() const
{
    constexpr qint64 outerBraces = 5; // {\n and \n}\n
    qint64 size = outerBraces + arrayFrameSize(indentStep, QLatin1String("roots"));
    if (m_roots.empty())
        ++size; // There is no last element to lack a comma.
    size += indentStep + qint64{9} + lengthOf(m_processCount); // "total": N

    for (const Node& node : m_nodes) {
        const qint64 indent = indentStep * 2 * (node.depth + 1);
        const qint64 memberIndent = indent + indentStep;
        size += 2 * indent + 5;                                    // {\n and },\n
        size += memberIndent + 8 + lengthOf(nameOf(node.pid)) + 2; // "name": ...,\n
        size += memberIndent + 7 + lengthOf(node.pid) + 1;         // "pid": ...\n
        if (!node.children.empty())
            size += arrayFrameSize(memberIndent, QLatin1String("children"));
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
