// Directories and files made for a test.
#pragma once

#include <QDir>
#include <QFile>

namespace korvane::test {

/// Makes below `root` what `list` names, separated by "|": "d/" is a directory, "f=10" a file of
/// ten bytes (sparse), "l>f" a link to "f". Directories on the way are made too.
inline void makeTree(const QString& root, const QString& list)
{
    for (const QString& entry : list.split(u'|', Qt::SkipEmptyParts)) {
        const QString path = root + u'/' + entry.section(u'=', 0, 0).section(u'>', 0, 0);
        QDir().mkpath(path.endsWith(u'/') ? path : QFileInfo(path).path());
        QFile file(path);
        if (entry.contains(u'>'))
            QFile::link(entry.section(u'>', 1), path);
        else if (entry.contains(u'=') && file.open(QFile::WriteOnly))
            file.resize(entry.section(u'=', 1).toLongLong());
    }
}

} // namespace korvane::test
