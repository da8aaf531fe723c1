// Tests which paths may be opened, by their text and by traps that tell when one was; and the walk
// with what only Windows has: names that its own parser would change, and its links.
#include "core/signatures.h"
#include "platform/paths.h"
#include "platform/signatures.h"
#include "platform/windows/files/local_path.h"
#include "platform/windows/paths/drive_path.h"
#include "support/damage.h"
#include "support/file_walk.h"
#include "support/windows.h"

#include <QScopeGuard>
#include <QtEndian>

using namespace korvane;
using namespace windows_platform;
using namespace Qt::StringLiterals;
using platform::isLocalPath;
using platform::WalkedEntry;
using test::shown;

namespace {

constexpr quint32 symbolicLink = IO_REPARSE_TAG_SYMLINK;
constexpr quint32 linuxLink = 0xA000001D;
constexpr quint32 junction = IO_REPARSE_TAG_MOUNT_POINT;

/// What the file system keeps of a link.
QByteArray reparsePoint(quint32 tag, const QString& target, quint32 flags = 0)
{
    QByteArray text(reinterpret_cast<const char*>(target.utf16()), target.size() * 2);
    QByteArray data(tag == symbolicLink ? 20 : 16, '\0');
    qToLittleEndian(tag, data.data());
    qToLittleEndian(static_cast<quint16>(data.size() - 8 + text.size()), data.data() + 4);
    qToLittleEndian(static_cast<quint16>(text.size()), data.data() + 10);
    if (tag == symbolicLink)
        qToLittleEndian(flags, data.data() + 16);
    return data + text;
}

/// What the tools say of a path: none of it tells whether something is there.
QString answersOf(const QString& path)
{
    test::Client client;
    QString answers;
    for (const auto& [tool, key] : {std::pair(u"unlock_file"_s, u"path"_s),
                                    std::pair(u"find_large_files"_s, u"root_path"_s)}) {
        const test::ToolReply reply = client.call(tool, {{key, path}});
        answers += reply.text.section(u" failed: "_s, 1) + u'|';
    }
    const QJsonObject verified =
        client.call(u"verify_signatures"_s, {{u"paths"_s, QJsonArray{path}}}).json();
    if (platform::verifySignature(path) == SignatureStatus::Unknown)
        answers += platform::signerName(path);
    return answers + QString::number(verified[u"unknown"_s].toInt());
}

QString answersOfNothing(const QString& path)
{
    return u"路径不存在: %1|路径不存在: %1|1"_s.arg(path);
}

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
        int found = 0;
        platform::walkFiles(u"C:"_s, [&found](const WalkedEntry&) { return ++found == 0; });
        QCOMPARE(found, 1); // as a folder in some other one it would be none
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

    void texts()
    {
        const QString here = QDir::toNativeSeparators(QDir::currentPath());
        for (const QString& row : test::rows(R"(
            C:\windows => C:\windows
            c:/windows//system32/. => c:\windows\system32
            C:\a\..\..\b => C:\b
            C:\ => C:\
            \\?\C:\a\..\b | //?/C:/b => C:\b
            C:\conin\comb.txt => C:\conin\comb.txt
            C:\文件 %1 => C:\文件 %1
            x\y => HERE\x\y
            . => HERE
            \\host\x | //host/x | \/host\x | /\host/x | \\host | \\ | // => NONE
            \\?\UNC\host\x | //?/unc/host/x | \\?\GLOBALROOT\Device\Mup\host\x => NONE
            \\?\Volume{0}\x | \\?\pipe\x | \\?\C: | \\?\C:x | \\?\x | \\.\C:\x | //./pipe/x => NONE
            \??\C:\x | \??\UNC\host\x | C:\a?b | C:\a*b | C:\a|b | C:\a>b => NONE
            C:\a:b | C:\a::$DATA | C:a:b | file:///C:/x | http://x/y | :/x => NONE
            CON | con | C:\x\CON | C:\con\x | nul.txt | C:\x\Nul .a.b | com1 | C:\COM9.log => NONE
            C:\com¹ | lpt³.x | C:\x\aux | PRN: | conin$ | C:\CONOUT$ | C:\x\NUL.  => NONE)")) {
            const QString expected = row.section(u" => "_s, 1);
            for (const QString& path : row.section(u" => "_s, 0, 0).split(u" | "_s)) {
                QString seen = drivePath(path);
                QCOMPARE(isLocalPath(path), !seen.isEmpty());
                seen = seen.isEmpty() ? u"NONE"_s : seen.replace(here, u"HERE"_s);
                QCOMPARE(path + u" => "_s + seen, path + u" => "_s + expected);
            }
        }
        QCOMPARE(drivePath({}), here);
        QVERIFY(!isLocalPath(u"C:\\a\0b"_s) && !isLocalPath(u"C:\\"_s + QString(40000, u'x')));
        QVERIFY(!isLocalPath(u"Q:\\x"_s)); // no such drive
    }

    void links()
    {
        const QString link = u"C:\\d\\link"_s;
        const test::Cases<quint32, const char*, quint32, const char*> cases{
            {"junction", junction, R"(\??\D:\x\)", 0, R"(D:\x\)"},
            {"volume", junction, R"(\??\Volume{01234567-89ab-cdef-0123-456789abcdef}\)", 0,
             R"(C:\d\link)"},
            {"link", symbolicLink, R"(\??\D:\x)", 0, R"(D:\x)"},
            {"relative", symbolicLink, R"(..\x)", 1, R"(C:\d\..\x)"},
            {"of the drive", symbolicLink, R"(\x)", 1, R"(C:\x)"},
            {"to a host", symbolicLink, R"(\??\UNC\host\x)", 0, ""},
            {"junction to a host", junction, R"(\??\UNC\host\x)", 0, ""},
            {"relative to a host", symbolicLink, R"(\\host\x)", 1, ""},
            {"to a device", symbolicLink, R"(\Device\Mup\host\x)", 0, ""},
            {"to the root", symbolicLink, R"(\??\GLOBALROOT\Device\Mup\x)", 0, ""},
            {"empty", junction, "", 0, ""},
            {"in the cloud", IO_REPARSE_TAG_CLOUD, "", 0, R"(C:\d\link)"},
            {"of another system", linuxLink, "x", 0, ""}};
        for (const auto& [name, tag, target, flags, expected] : cases) {
            const QByteArray data = reparsePoint(tag, QString::fromLatin1(target), flags);
            QVERIFY2(linkTarget(data, link).value_or(QString()) == QLatin1String(expected), name);
            const auto read = [&link](const QByteArray& damaged) { linkTarget(damaged, link); };
            test::feedTruncated(data, read);
            test::feedChanged(data, read);
        }
    }

    // A pipe knows when somebody opens it, which is what asking whether it exists does.
    void nothingIsOpened()
    {
        const QString name = u"korvane-trap-%1"_s.arg(QCoreApplication::applicationPid());
        const QString path = uR"(\\.\pipe\)"_s + name;
        const UniqueHandle pipe =
            owned(CreateNamedPipeW(wide(path), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                   PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr));
        QVERIFY(pipe);
        const UniqueHandle opened(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        OVERLAPPED waiting{};
        waiting.hEvent = opened.get();
        QVERIFY(!ConnectNamedPipe(pipe.get(), &waiting) && GetLastError() == ERROR_IO_PENDING);
        for (const QString& form :
             {path, u"//./pipe/"_s + name, uR"(\\?\pipe\)"_s + name, uR"(\\?\PIPE/)"_s + name,
              uR"(\??\pipe\)"_s + name, uR"(\\localhost\pipe\)"_s + name,
              uR"(\\?\GLOBALROOT\Device\NamedPipe\)"_s + name, u"C:/../..//./pipe/"_s + name}) {
            QCOMPARE(answersOf(form), answersOfNothing(form));
            QVERIFY2(WaitForSingleObject(opened.get(), 0) == WAIT_TIMEOUT, qPrintable(form));
        }
        owned(CreateFileW(wide(path), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        QCOMPARE(WaitForSingleObject(opened.get(), 1000), DWORD{WAIT_OBJECT_0});
    }

    // Wine looks for hosts in a directory, Windows asks itself by the network.
    void aFileOnAHost()
    {
        const QString prefix = qEnvironmentVariable("WINECONFIGDIR").remove(uR"(\??\)"_s);
        const QString hosts = prefix + u"/dosdevices/unc/korvane-host"_s;
        const auto tidy = qScopeGuard([&hosts] { QDir(hosts).removeRecursively(); });
        QString directory = uR"(\\localhost\C$\Windows)"_s;
        if (!prefix.isEmpty()) {
            directory = uR"(\\korvane-host\share)"_s;
            test::makeTree(hosts, u"share/explorer.exe=60000000"_s);
        }
        const QString file = directory + uR"(\explorer.exe)"_s;
        if (!QFileInfo::exists(file))
            QSKIP("this machine shares no drive with itself");
        for (const QString& path : {file, QString(file).replace(u'\\', u'/'),
                                    QString(file).replace(uR"(\\)"_s, uR"(\\?\UNC\)"_s)})
            QCOMPARE(answersOf(path), answersOfNothing(path));
        QVERIFY(QDir::setCurrent(directory));
        for (const QString& path : {u"explorer.exe"_s, u"."_s, u"\\"_s})
            QCOMPARE(answersOf(path), answersOfNothing(path));
        QVERIFY(QDir::setCurrent(m_root->path()));

        if (test::isWine)
            QSKIP("Wine 10 makes no links to elsewhere");
        const QString link = QDir::toNativeSeparators(m_root->filePath(u"link"_s));
        QVERIFY(test::makeLink(m_root->filePath(u"link"_s), directory, true));
        for (const QString& path : {link, link + uR"(\explorer.exe)"_s})
            QCOMPARE(answersOf(path), answersOfNothing(path));
    }

    // A drive that stands for a place on a host is no drive of this machine.
    void drives()
    {
        const QString there = QDir::toNativeSeparators(m_root->path());
        const test::Cases<DWORD, QString, bool> cases{
            {"Q:", 0, there, true},
            {"R:", DDD_RAW_TARGET_PATH, uR"(\??\UNC\host\share)"_s, false},
            {"S:", DDD_RAW_TARGET_PATH, uR"(\Device\Mup\;S:0001\host\share)"_s, false}};
        for (const auto& [name, flags, target, isLocal] : cases) {
            const QString drive = QString::fromLatin1(name);
            if (DefineDosDeviceW(flags, wide(drive), wide(target)) == 0)
                QSKIP("no drives can be defined here");
            const bool isSeenLocal = isLocalPath(drive + u"\\x"_s);
            DefineDosDeviceW(flags | DDD_REMOVE_DEFINITION, wide(drive), wide(target));
            QVERIFY2(isSeenLocal == isLocal, name);
        }
    }
};

QTEST_GUILESS_MAIN(WindowsFilesTest)
#include "tst_windows_files.moc"
