// Tests of the walk with what only Windows has: names that its own parser would change, and its links.
#include "platform/windows/files/local_path.h"
#include "platform/windows/sys/system_library.h"
#include "platform/windows/sys/text.h"
#include "support/file_walk.h"
#include "support/table.h"

#include <QProcess>
#include <QTemporaryDir>

#include <windows.h>

using namespace korvane;
using namespace Qt::StringLiterals;
using platform::WalkedEntry;
using test::shown;

namespace {

const QString loneSurrogate = u"half"_s + QChar(0xd83d);

/// A file's name, and whether its path leads back to it.
const test::Cases<QString, bool> names{
    {"plain", u"中 文.txt"_s, true},
    {"half of a character", loneSurrogate, true},
    {"a dot at the end", u"a."_s, false},
    {"a blank at the end", u"a "_s, false},
    {"a folder with dots", u"b..\\f"_s, false},
};

const test::Cases<QString> elsewhere{
    {"another machine", u"\\\\localhost\\share\\f"_s},
    {"the same, by its long form", u"\\\\?\\UNC\\localhost\\share"_s},
    {"a device", u"\\\\.\\PhysicalDrive0"_s},
    {"the same, by its long form", u"\\\\?\\GLOBALROOT\\Device\\Null"_s},
};

QStringList sorted(QStringList lines)
{
    lines.sort();
    return lines;
}

std::wstring extended(const QString& name)
{
    return (u"\\\\?\\"_s + QDir::toNativeSeparators(QDir::currentPath() + u'\\' + name))
        .toStdWString();
}

bool makeFile(const QString& name)
{
    if (name.contains(u'\\'))
        CreateDirectoryW(extended(name.section(u'\\', 0, 0)).c_str(), nullptr);
    const HANDLE file =
        CreateFileW(extended(name).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    return file != INVALID_HANDLE_VALUE && CloseHandle(file) != FALSE;
}

/// Wine has no links of its own, but shows those of the system below it, where they lead somewhere.
bool makeLink(const QString& name, const QString& target, bool toFolder)
{
    using UnixName = char*(CDECL*)(const wchar_t*);
    const auto unixName =
        windows_platform::systemFunction<UnixName>(L"kernel32.dll", "wine_get_unix_file_name");
    if (unixName == nullptr) {
        const DWORD flags = SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE | (toFolder ? 1U : 0U);
        return CreateSymbolicLinkW(extended(name).c_str(), windows_platform::wide(target), flags) !=
               0;
    }
    const QString folder = QDir::toNativeSeparators(QDir::currentPath());
    const QString link = QString::fromUtf8(unixName(windows_platform::wide(folder))) + u'/' + name;
    const QStringList command{u"/unix"_s, u"/bin/ln"_s, u"-s"_s, target, link};
    return !target.startsWith(u'\\') && QProcess::execute(u"start"_s, command) >= 0 &&
           QTest::qWaitFor([&name] {
               return GetFileAttributesW(extended(name).c_str()) != INVALID_FILE_ATTRIBUTES;
           });
}

} // namespace

class WindowsFilesTest : public QObject
{
    Q_OBJECT

    const QString m_home = QDir::currentPath();
    std::unique_ptr<QTemporaryDir> m_root;

private Q_SLOTS:
    void init()
    {
        m_root = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(m_root->path()));
    }
    void cleanup() { QVERIFY(QDir::setCurrent(m_home)); }

    void tellsWhichPathsLeadBack_data() { test::addRows(names); }
    void tellsWhichPathsLeadBack()
    {
        const auto& [row, name, isExact] = test::currentRow(names);
        if (!makeFile(name))
            QSKIP("this file system does not take the name (Wine: half of a character)");
        QStringList found;
        platform::walkFiles(m_root->path(), [&](const WalkedEntry& entry) {
            found += QString::number(entry.hasExactPath()) + entry.path();
            const auto path = QDir::toNativeSeparators(entry.path()).toStdWString();
            return DeleteFileW((L"\\\\?\\" + path).c_str()) != FALSE; // or it stays behind
        });
        RemoveDirectoryW(extended(name.section(u'\\', 0, 0)).c_str());
        const QString path = m_root->path() + u'/' + QDir::fromNativeSeparators(name);
        QCOMPARE(found, QStringList{QString::number(isExact) + path});
        QVERIFY(!QFile::exists(path));
    }

    void followsNoLinksToFolders()
    {
        int found = 0;
        platform::walkFiles(u"C:"_s, [&found](const WalkedEntry&) { return ++found == 0; });
        QCOMPARE(found, 1); // as a folder in some other one it would be none
        test::makeTree(m_root->path(), u"real/sub/|real/file=9"_s);
        if (!makeLink(u"real/sub/up"_s, u".."_s, true) || !makeLink(u"link"_s, u"real"_s, true) ||
            !makeLink(u"real/also"_s, u"file"_s, false))
            QSKIP("links cannot be made here");
        const QStringList once{u"0 9 also %1/also"_s, u"0 9 file %1/file"_s};
        const auto below = [&once](const QString& root) {
            return QStringList(once).replaceInStrings(u"%1"_s, root);
        };
        QCOMPARE(shown(platform::walkFiles, u"."_s), below(u"./real"_s));
        QCOMPARE(shown(platform::walkFiles, u"link"_s), below(u"link"_s));
        QCOMPARE(shown(platform::walkEntries, u"."_s),
                 sorted(below(u"./link"_s) + below(u"./real"_s)) +
                     QStringList({u"entry 1 0 link ./link"_s, u"entry 1 0 real ./real"_s}));
    }

    void staysOnThisMachine_data() { test::addRows(elsewhere); }
    void staysOnThisMachine()
    {
        const QString path = std::get<1>(test::currentRow(elsewhere));
        QVERIFY(!windows_platform::localPath(path));
        if (!makeLink(u"away"_s, path, false))
            return; // The system below Wine has no such links.
        QCOMPARE(shown(platform::walkFiles, u"."_s), QStringList{u"0 0 away ./away"_s});
        QVERIFY(!windows_platform::localPath(u"away"_s));
    }
};

QTEST_GUILESS_MAIN(WindowsFilesTest)
#include "tst_windows_files.moc"
