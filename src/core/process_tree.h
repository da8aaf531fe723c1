// The forest of parents and children that a process list describes.
#pragma once

#include "base/system_records.h"

#include <QHash>
#include <QJsonArray>
#include <QList>
#include <QSet>

#include <vector>

namespace korvane {

/// A forest of nodes, built in linear time and without recursion: the depth is whatever the
/// parent links say. A process whose parent is not listed, or that is its own parent, is a root;
/// one whose links form a cycle is under no root and has no node.
///
/// Invariant: nodes stand in pre-order, so a node's children have higher indices than the node.
class ProcessTree
{
public:
    /// The indented text grows with the square of the depth; beyond this it is not to be made.
    static constexpr qint64 maxTextSize = qint64{64} * 1024 * 1024;

    explicit ProcessTree(const QList<ProcessSnapshot>& processes);

    qsizetype rootCount() const { return static_cast<qsizetype>(m_roots.size()); }

    /// How many levels the forest has; 0 without nodes.
    qint64 depth() const;

    /// An upper bound, in bytes, of the indented text of an object {"roots": [...], "total": N}. It is
    /// at most three times the text's size where names have up to 20 characters, and close to it in
    /// deep trees, which are mostly indentation. 200,000 processes on three levels are within
    /// maxTextSize.
    qint64 textSizeBound() const;

    /// The root nodes, each an object of "pid", "name" and, where it has any, "children".
    /// Its nesting is as deep as the forest: only for one within maxTextSize.
    QJsonArray toJson() const;

private:
    struct Node
    {
        quint32 pid = 0;
        qint64 depth = 0;
        std::vector<std::size_t> children;
    };

    std::size_t addNode(quint32 pid, qint64 depth);
    void addSubtree(quint32 rootPid);
    QString nameOf(quint32 pid) const;

    QHash<quint32, QString> m_names;
    QHash<quint32, QList<quint32>> m_childPids;
    QSet<quint32> m_visited;
    std::vector<Node> m_nodes;
    std::vector<std::size_t> m_roots;
};

} // namespace korvane
