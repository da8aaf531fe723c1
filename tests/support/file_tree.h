// Directories and files made for a test.
#pragma once

#include <QDir>
#include <QFile>

namespace korvane::test {

/// Whether names may hold any character, links need no right, and the home is the environment's.
inline bool hasPosixFiles()
{
    return QDir::separator() == u'/';
}

/// Where the program's temporary files are from now on.
inline void setTemporaryDirectory(const QString& path)
{
    for (const char* name : {"TMPDIR", "TMP", "TEMP"})
        qputenv(name, path.toUtf8());
}

/// Makes below `root` what `list` names, separated by "|": "d/" is a directory, "f=10" a file of
/// ten bytes (sparse), "l>f" a link to "f", where hasPosixFiles(). Directories on the way are made too.
inline void makeTree(const QString& root, const QString& list)
{
    for (const QString& entry : list.split(u'|', Qt::SkipEmptyParts)) {
        const QString path = root + u'/' + entry.section(u'=', 0, 0).section(u'>', 0, 0);
        QDir().mkpath(path.endsWith(u'/') ? path : QFileInfo(path).path());
        QFile file(path);
        if (entry.contains(u'>') && hasPosixFiles())
            QFile::link(entry.section(u'>', 1), path);
        else if (entry.contains(u'=') && file.open(QFile::WriteOnly))
            file.resize(entry.section(u'=', 1).toLongLong());
    }
}

} // namespace korvane::test
