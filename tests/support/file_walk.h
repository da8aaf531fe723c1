// What walks show, as lines that can be compared.
#pragma once

#include "platform/file_walk.h"
#include "support/file_tree.h"

#include <QStringList>

namespace korvane::platform {

// The same of the build without a back end, under another name (see CMakeLists.txt).
void walkFilesByFramework(const QString& root, const EntryVisitor& visit);
void walkEntriesByFramework(const QString& root, const EntryVisitor& visitEntry,
                            const EntryVisitor& visitFile);

} // namespace korvane::platform

namespace korvane::test {

using namespace Qt::StringLiterals;

/// What a walk shows, until there are `limit`; of walkEntries(), entries are marked.
template <typename... Visitors>
QStringList shown(void (*walk)(const QString&, Visitors...), const QString& root,
                  qsizetype limit = -1)
{
    QStringList lines;
    const auto noteAs = [&lines, limit](const QString& mark) -> platform::EntryVisitor {
        return [&lines, limit, mark](const platform::WalkedEntry& entry) {
            lines.append(u"%1%2 %3 %4 %5"_s.arg(mark, QString::number(entry.isDirectory()),
                                                QString::number(entry.size()), entry.name(),
                                                entry.path()));
            return lines.size() != limit;
        };
    };
    if constexpr (sizeof...(Visitors) == 2)
        walk(root, noteAs(u"entry "_s), noteAs({}));
    else
        walk(root, noteAs({}));
    lines.sort();
    return lines;
}

} // namespace korvane::test
