// Tests of the walk with what only Windows has: names that its own parser would change, and its links.
#include "platform/windows/files/local_path.h"
#include "support/file_walk.h"
#include "support/windows.h"

using namespace korvane;
using namespace Qt::StringLiterals;
using platform::WalkedEntry;
using test::shown;

namespace {

/// A file's name, and whether its path leads back to it.
const test::Cases<QString, bool> names{
    {"plain", u"中 文.txt"_s, true},
    {"half of a character", u"half"_s + QChar(0xd83d), true},
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

} // namespace

class WindowsFilesTest : public QObject
{
    Q_OBJECT

    const QString m_home = QDir::currentPath();
    std::unique_ptr<QTemporaryDir> m_root;

    bool makeLink(const QString& name, const QString& target, bool toFolder = true) const
    {
        return test::makeLink(m_root->filePath(name), target, toFolder);
    }

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
        // By a path of its own making: extendedPath() leaves out dots and blanks at the end.
        const QString exact =
            uR"(\\?\)"_s + QDir::toNativeSeparators(m_root->path()) + u'\\' + name;
        if (name.contains(u'\\'))
            CreateDirectoryW(test::wide(exact.chopped(2)), nullptr);
        if (!windows_platform::owned(
                CreateFileW(test::wide(exact), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr)))
            QSKIP("this file system does not take the name (Wine: half of a character)");
        QStringList found;
        platform::walkFiles(m_root->path(), [&](const WalkedEntry& entry) {
            found += QString::number(entry.hasExactPath()) + entry.path();
            return DeleteFileW(test::wide(exact)) != FALSE; // or it stays behind
        });
        RemoveDirectoryW(test::wide(exact.chopped(2)));
        const QString path = m_root->path() + u'/' + QDir::fromNativeSeparators(name);
        QCOMPARE(found, QStringList{QString::number(isExact) + path});
        QVERIFY(!QFile::exists(path));
    }

    void followsNoLinksToFolders()
    {
        test::makeTree(m_root->path(), u"real/sub/|real/file=9"_s);
        if (!makeLink(u"real/sub/up"_s, u".."_s) || !makeLink(u"link"_s, u"real"_s) ||
            !makeLink(u"real/also"_s, u"file"_s, false))
            QSKIP("links cannot be made here");
        const QStringList once{u"0 9 also %1/also"_s, u"0 9 file %1/file"_s};
        const auto below = [&once](const QString& root) {
            return QStringList(once).replaceInStrings(u"%1"_s, root);
        };
        QCOMPARE(shown(platform::walkFiles, u"."_s), below(u"./real"_s));
        QCOMPARE(shown(platform::walkFiles, u"link"_s), below(u"link"_s));
        QStringList all = below(u"./link"_s) + below(u"./real"_s);
        all.sort();
        QCOMPARE(shown(platform::walkEntries, u"."_s),
                 all << u"entry 1 0 link ./link"_s << u"entry 1 0 real ./real"_s);
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
