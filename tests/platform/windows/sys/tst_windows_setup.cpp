// Tests the standard streams on every kind of handle, and the operations on the desktop.
#include "platform/desktop.h"
#include "platform/file_sync.h"
#include "platform/process_setup.h"
#include "support/windows.h"

#include <array>
#include <future>

using namespace korvane;
using namespace Qt::StringLiterals;
using test::UniqueHandle;

namespace {

/// Both ends of a pipe; its own is the program's.
struct Pipe
{
    QString name = uR"(\\.\pipe\korvane-test-%1)"_s.arg(GetCurrentProcessId());
    UniqueHandle own;
    UniqueHandle other;

    Pipe(DWORD direction, DWORD mode)
        : own(CreateNamedPipeW(test::wide(name), direction, mode, 1, 4096, 4096, 0, nullptr)),
          other(test::open(name, direction & PIPE_ACCESS_INBOUND ? GENERIC_WRITE : GENERIC_READ))
    {
    }
    bool put(const char* text) const
    {
        DWORD count = 0;
        const auto size = static_cast<DWORD>(qstrlen(text));
        return WriteFile(other.get(), text, size, &count, nullptr) != FALSE;
    }
};

const test::Cases<DWORD, DWORD> pipes{
    {"plain", 0, PIPE_TYPE_BYTE},
    {"overlapped", FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE},
    {"without waiting", 0, PIPE_TYPE_BYTE | PIPE_NOWAIT},
    {"of messages", 0, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE},
};

} // namespace

class TestWindowsSetup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        SetStdHandle(STD_INPUT_HANDLE, m_input);
        SetStdHandle(STD_OUTPUT_HANDLE, m_output);
    }

    void input_data() { test::addRows(pipes); }
    void input()
    {
        const auto& [tag, flags, mode] = test::currentRow(pipes);
        Pipe pipe(PIPE_ACCESS_INBOUND | flags, mode);
        SetStdHandle(STD_INPUT_HANDLE, pipe.own.get());
        const auto streams = platform::prepareProcess();
        std::array<char, 4> buffer{};
        const auto read = [&] {
            const auto count = streams->read(buffer);
            return QByteArray(buffer.data(), count < 0 ? 0 : count) + (count < 0 ? "failed" : "");
        };
        QVERIFY(pipe.put("ab\n\x1a"));
        QCOMPARE(read(), "ab\n\x1a");
        QVERIFY(!streams->inputHasEnded());
        auto later = std::async(std::launch::async, read);
        QTest::qWait(50);
        QVERIFY(!streams->inputHasEnded()); // while another thread waits for input
        QVERIFY(pipe.put("") && pipe.put("later"));
        const QByteArray beginning = later.get();
        QCOMPARE(beginning + read(), "later");
        QVERIFY(pipe.put("rest"));
        pipe.other.reset();
        QVERIFY(streams->inputHasEnded()); // though there is something to read
        QCOMPARE(read(), "rest");
        QCOMPARE(read(), "");
    }

    void output_data() { test::addRows(pipes); }
    void output()
    {
        const auto& [tag, flags, mode] = test::currentRow(pipes);
        Pipe pipe(PIPE_ACCESS_OUTBOUND | flags, mode);
        SetStdHandle(STD_OUTPUT_HANDLE, pipe.own.get());
        const auto streams = platform::prepareProcess();
        const QByteArray text("a line\n\xe4\xb8\xad", 10);
        const QByteArray all = text.repeated(30'000);
        auto written = std::async(std::launch::async, [&] {
            return streams->write({all.constData(), 300'000});
        });
        QByteArray got;
        QByteArray piece(4000, '\0');
        DWORD count = 0;
        while (got.size() < all.size() &&
               ReadFile(pipe.other.get(), piece.data(), 4000, &count, nullptr) != FALSE)
            got.append(piece.constData(), static_cast<qsizetype>(count));
        QVERIFY(got == all && written.get());
        pipe.other.reset();
        QVERIFY(!streams->write("x"));
    }

    void noPipe()
    {
        const QTemporaryDir directory;
        QFile file(directory.filePath(u"input"_s));
        QVERIFY(file.open(QIODevice::ReadWrite | QIODevice::Unbuffered) &&
                file.write("text") == 4 && platform::syncFile(file.handle()));
        const UniqueHandle handle = test::open(file.fileName(), GENERIC_READ);
        std::array<char, 8> buffer{};
        SetStdHandle(STD_INPUT_HANDLE, handle.get());
        auto streams = platform::prepareProcess();
        QCOMPARE(streams->read(buffer), 4);
        QCOMPARE(streams->read(buffer), 0);
        QVERIFY(!streams->inputHasEnded());
        SetStdHandle(STD_INPUT_HANDLE, nullptr);
        streams = platform::prepareProcess();
        QCOMPARE(streams->read(buffer), 0);
        QCOMPARE(GetFileType(GetStdHandle(STD_INPUT_HANDLE)), DWORD(FILE_TYPE_CHAR)); // NUL
    }

    void markOfTheWeb()
    {
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"x"_s.repeated(200) + u".exe"_s);
        QVERIFY(!platform::removeMarkOfTheWeb(path));
        for (const QString& stream : {u""_s, u":Zone.Identifier"_s}) {
            QFile file(path + stream);
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write("content") > 0);
        }
        QVERIFY(platform::removeMarkOfTheWeb(path) && platform::removeMarkOfTheWeb(path));
        QVERIFY(QFile::exists(path) && !QFile::exists(path + u":Zone.Identifier"_s));
        QVERIFY(platform::setKeepAwake(true) && platform::setKeepAwake(false));
    }

    void topmostWindow()
    {
        const HWND window = CreateWindowExW(0, L"STATIC", L"", WS_POPUP | WS_VISIBLE, 0, 0, 9, 9,
                                            nullptr, nullptr, nullptr, nullptr);
        if (window == nullptr || SetForegroundWindow(window) == FALSE ||
            GetForegroundWindow() != window)
            QSKIP("no windows here, or another program's is in front");
        for (const int state : {1, 0}) {
            QCOMPARE(platform::toggleForegroundWindowTopmost(), state);
            QTRY_COMPARE(GetWindowLongPtrW(window, GWL_EXSTYLE) >> 3 & 1, state);
        }
        DestroyWindow(window);
    }

private:
    HANDLE m_input = GetStdHandle(STD_INPUT_HANDLE);
    HANDLE m_output = GetStdHandle(STD_OUTPUT_HANDLE);
};

QTEST_GUILESS_MAIN(TestWindowsSetup)
#include "tst_windows_setup.moc"
