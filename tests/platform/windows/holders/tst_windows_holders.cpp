// Tests of finding and closing other processes' handles, which this program holds, started again.
#include "core/file_unlock.h"
#include "platform/windows/holders/limited_questions.h"
#include "support/windows.h"

#include <array>
#include <atomic>
#include <iostream>
#include <thread>

using namespace korvane;
using namespace Qt::StringLiterals;
using platform::HeldFile;
using test::UniqueHandle;
using windows_platform::askWithLimit;

namespace {

constexpr DWORD readWrite = GENERIC_READ | GENERIC_WRITE;

/// The child: holds `path`, or what it is mapped to, and reads from a pipe to which nobody writes,
/// which makes questions about that handle hang on Windows.
int hold(const QString& how, const QString& path)
{
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    CreatePipe(&read, &write, nullptr, 0);
    std::thread([read] {
        char byte = 0;
        DWORD size = 0;
        ReadFile(read, &byte, 1, &size, nullptr);
    }).detach();
    const DWORD share = how == u"alone" ? 0 : FILE_SHARE_READ | FILE_SHARE_WRITE;
    UniqueHandle file = how == u"nothing" ? nullptr : test::open(path, readWrite, share);
    if (how == u"mapped") {
        const UniqueHandle mapping(
            CreateFileMappingW(file.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
        MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0);
        file.reset();
    }
    std::cout << "holds" << std::endl;
    // Or until it is killed: not a read, which Wine cancels when a copy of its handle goes.
    Sleep(120'000);
    ExitProcess(0); // without waiting for the thread
}

/// How the child holds what, and what is asked about then.
const test::Cases<QString, QString, QString> holds{
    {"a file, for itself", u"alone"_s, u"d/文件"_s, u"d/文件"_s},
    {"a file, by its other name", u"alone"_s, u"d/文件"_s, u"d/../D/文件"_s},
    {"a file that others read", u"shared"_s, u"d/f"_s, u"d/f"_s},
    {"a folder", u"shared"_s, u"d"_s, u"d"_s},
    {"a file in the folder", u"alone"_s, u"d/in/deep/f"_s, u"d"_s},
    {"the current directory", u"nothing"_s, u"d/in"_s, u"d/in"_s},
};

} // namespace

class WindowsHoldersTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_root;
    FileUnlockService& m_service = Singleton<FileUnlockService>::instance();

    QString at(const QString& path) const
    {
        return QDir::toNativeSeparators(m_root->filePath(path));
    }

    /// Starts the child, and returns once it holds the path.
    std::unique_ptr<QProcess> holder(const QString& how, const QString& path) const
    {
        auto child = std::make_unique<QProcess>();
        child->setWorkingDirectory(how == u"nothing" ? at(path) : QDir::rootPath());
        child->setCreateProcessArgumentsModifier([](QProcess::CreateProcessArguments* arguments) {
            arguments->flags |= DETACHED_PROCESS; // else a console's host is in that directory too
        });
        child->start(QCoreApplication::applicationFilePath(), {u"hold"_s, how, at(path)});
        while (!child->canReadLine() && child->waitForReadyRead(60'000))
            continue;
        return child;
    }

    QList<qint64> holdersOf(const QString& path)
    {
        const LockerProbe probe = m_service.probeLockers({at(path)});
        QList<qint64> pids;
        for (const ProcessInfo& process : probe.processes)
            pids.append(process.pid);
        return probe.ok ? pids : QList<qint64>{-1};
    }

    bool canDelete(const QString& path) const
    {
        return QFileInfo(at(path)).isDir() ? QDir(at(path)).removeRecursively()
                                           : QFile::remove(at(path));
    }

private Q_SLOTS:
    void init()
    {
        m_root = std::make_unique<QTemporaryDir>();
        test::makeTree(m_root->path(), u"d/文件=5|d/f=1|d/in/deep/f=3|beside=1|free=1"_s);
    }

    void closesWhatIsHeld_data() { test::addRows(holds); }
    void closesWhatIsHeld()
    {
        const auto& [name, how, held, asked] = test::currentRow(holds);
        const auto bystander = holder(u"alone"_s, u"beside"_s);
        const auto child = holder(how, held);
        const LockerProbe probe = m_service.probeLockers({at(asked)});
        QVERIFY2(probe.ok && probe.processes.size() == 1, qPrintable(probe.error));
        QCOMPARE(probe.processes[0].pid, child->processId());
        QCOMPARE(probe.processes[0].exePath,
                 QDir::toNativeSeparators(QCoreApplication::applicationFilePath()));
        QVERIFY(!canDelete(held));
        const OpResult closed = m_service.closeHandlesSync();
        QVERIFY2(closed.ok && closed.message == u"已关闭 1 个句柄"_s, qPrintable(closed.message));
        QCOMPARE(holdersOf(asked), QList<qint64>());
        QVERIFY(canDelete(held));
        QCOMPARE(holdersOf(u"beside"_s), QList<qint64>{bystander->processId()});
        QCOMPARE(child->state(), QProcess::Running);
    }

    void closesNothingElse()
    {
        const auto child = holder(u"alone"_s, u"d/f"_s);
        QList<HeldFile> held;
        QVERIFY(platform::findFileHolders({at(u"d/f"_s)}, held).ok);
        QCOMPARE(held.size(), 1);
        const QString who =
            u"仍被占用: tst_windows_holders.exe (PID %1): "_s.arg(child->processId());
        // As if the handle were another file's now, or the process another one of this PID; and as
        // where the file is mapped, and on Windows the kernel says so.
        QList<HeldFile> others(3, held[0]);
        others[0].file.append('x');
        ++others[1].startTime;
        others[2].handle = 0;
        for (const HeldFile& other : others)
            QCOMPARE(platform::closeHeldFiles({other}).message,
                     who + (other.handle == 0 ? u"没有可关闭的句柄(文件可能已载入其内存)"_s
                                              : u"已重新打开"_s));
        child->kill();
        QVERIFY(child->waitForFinished());
        QVERIFY(platform::closeHeldFiles(held).ok);
    }

    void neverClosesItsOwn()
    {
        const UniqueHandle own = test::open(at(u"d/f"_s), readWrite);
        QCOMPARE(holdersOf(u"d"_s), QList<qint64>{QCoreApplication::applicationPid()});
        const OpResult closed = m_service.closeHandlesSync();
        QVERIFY(!closed.ok && closed.message.endsWith(u"是本程序自己"_s));
        for (const auto& path : {u"\\\\localhost\\c$"_s, u"\\\\.\\C:"_s})
            QVERIFY(!m_service.probeLockers({path}).ok);
        DWORD flags = 0;
        QVERIFY(GetHandleInformation(own.get(), &flags) != FALSE);
    }

    void namesWhoMapsAFile()
    {
        const auto child = holder(u"mapped"_s, u"d/f"_s);
        const QList<qint64> found = holdersOf(u"d/f"_s);
        if (found.isEmpty())
            QSKIP("Wine does not tell who maps a file");
        QCOMPARE(found, QList<qint64>{child->processId()});
        QVERIFY(!m_service.closeHandlesSync().ok);
    }

    void givesUpWhatHangs()
    {
        const UniqueHandle release(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        const auto asked = std::make_shared<std::atomic<int>>(0);
        const auto ask = [event = release.get(), asked](std::size_t index) {
            ++*asked;
            if (index > 0)
                WaitForSingleObject(event, INFINITE);
            return std::optional(windows_platform::OpenFile{"it", {}});
        };
        std::vector<windows_platform::HandleKey> keys(12);
        for (std::size_t i = 0; i < keys.size(); ++i)
            keys[i].handle = i;
        const std::vector two(keys.begin(), keys.begin() + 2);
        for (int round = 0; round < 2; ++round) {
            const auto answers = askWithLimit(two, ask);
            QVERIFY(answers.files[0] && !answers.files[1] && answers.unasked == 0);
            QCOMPARE(asked->load(), 2 + round); // the one that hangs once only
        }
        QCOMPARE(askWithLimit(keys, ask, std::chrono::milliseconds(200)).unasked, 3U); // 8 hang
        QCOMPARE(askWithLimit(two, ask).unasked, 2U);
        SetEvent(release.get());
        QTRY_COMPARE(askWithLimit(keys, ask).unasked, 0U);
        QTRY_VERIFY(askWithLimit(two, ask).files[1]);
    }

    void deletesAtTheRestart()
    {
        QVERIFY(!platform::scheduleDeleteOnReboot({at(u"d"_s)}).ok); // not empty
        QVERIFY(!platform::scheduleDeleteOnReboot({at(u"absent"_s)}).ok);
        QVERIFY(!platform::scheduleDeleteOnReboot({u"\\\\localhost\\c$\\f"_s}).ok);
        const OpResult noted = platform::scheduleDeleteOnReboot({at(u"free"_s)});
        if (noted.message.contains(u"需要管理员权限"_s))
            QSKIP("needs administrator rights");
        QVERIFY2(noted.ok, qPrintable(noted.message));
        // Pairs of texts, with the NULs between them.
        std::array<wchar_t, 0x8000> texts{};
        DWORD size = sizeof texts;
        RegGetValueW(HKEY_LOCAL_MACHINE, LR"(System\CurrentControlSet\Control\Session Manager)",
                     L"PendingFileRenameOperations", RRF_RT_REG_MULTI_SZ, nullptr, texts.data(),
                     &size);
        QVERIFY(QString::fromWCharArray(texts.data(), size / 2).contains(at(u"free"_s)));
    }
};

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == u"hold")
        return hold(arguments.value(2), arguments.value(3));
    WindowsHoldersTest suite;
    return QTest::qExec(&suite, argc, argv);
}
#include "tst_windows_holders.moc"
