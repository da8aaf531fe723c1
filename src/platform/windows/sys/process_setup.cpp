// Standard input and output by their handles; consoles, and what of the system would stop the program.
#include "platform/process_setup.h"

#include "platform/portable/any_processor.h"
#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/parent_console.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <mutex>

#include <io.h>
#include <winternl.h>

namespace korvane {

namespace {

using namespace windows_platform;

bool hasJoinedConsole = false;

/// Whether the handle stands for anything: a program without a console may have numbers that do not.
bool isOpen(HANDLE handle)
{
    return handle != nullptr && handle != INVALID_HANDLE_VALUE &&
           (GetFileType(handle) != FILE_TYPE_UNKNOWN || GetLastError() == ERROR_SUCCESS);
}

bool isConsole(HANDLE handle)
{
    DWORD mode = 0;
    return GetConsoleMode(handle, &mode) != FALSE;
}

/// The console where there is one, or the null device, for a stream that was not handed over: else what
/// is opened next would be taken for it. For the C library too, through which the framework writes.
void fillStream(DWORD id, std::FILE* stream, const char* console, const char* mode)
{
    SetLastError(ERROR_SUCCESS);
    if (isOpen(GetStdHandle(id)))
        return;
    if (std::freopen(hasJoinedConsole ? console : "NUL", mode, stream) == nullptr &&
        std::freopen("NUL", mode, stream) == nullptr)
        return;
    static_cast<void>(std::setvbuf(stream, nullptr, _IONBF, 0));
    SetStdHandle(id, std::bit_cast<HANDLE>(_get_osfhandle(_fileno(stream))));
}

/// A console shows UTF-8 for as long as this object lives. It is shared with other programs.
class ConsoleEncoding
{
public:
    ConsoleEncoding()
    {
        if (m_before != 0)
            SetConsoleOutputCP(CP_UTF8);
    }
    ~ConsoleEncoding()
    {
        if (m_before != 0)
            SetConsoleOutputCP(m_before);
    }
    ConsoleEncoding(const ConsoleEncoding&) = delete;
    ConsoleEncoding& operator=(const ConsoleEncoding&) = delete;
    ConsoleEncoding(ConsoleEncoding&&) = delete;
    ConsoleEncoding& operator=(ConsoleEncoding&&) = delete;

private:
    UINT m_before = GetConsoleOutputCP();
};

/// Either kind of handle: one that was opened for overlapped work fails, or tells lies, without an event.
class HandleStream
{
public:
    explicit HandleStream(DWORD id) : m_handle(GetStdHandle(id)), m_type(GetFileType(m_handle)) {}

    HANDLE handle() const { return m_handle; }
    bool isPipe() const { return m_type == FILE_TYPE_PIPE; }

    /// How many bytes ReadFile or WriteFile took; none, with GetLastError(), on a failure.
    template <typename Call, typename Buffer>
    std::optional<DWORD> transfer(Call call, Buffer* buffer, std::size_t size)
    {
        constexpr std::size_t mostAtOnce = std::size_t{64} * 1024; // A console takes no more.
        const auto wanted = static_cast<DWORD>(std::min(size, mostAtOnce));
        OVERLAPPED overlapped{};
        overlapped.hEvent = m_event.get();
        DWORD count = 0;
        if (call(m_handle, buffer, wanted, &count, isPipe() ? &overlapped : nullptr) != FALSE)
            return count;
        if (GetLastError() == ERROR_IO_PENDING &&
            GetOverlappedResult(m_handle, &overlapped, &count, TRUE) != FALSE)
            return count;
        // Of a message that is longer than the buffer.
        return GetLastError() == ERROR_MORE_DATA
                   ? std::optional(static_cast<DWORD>(overlapped.InternalHigh))
                   : std::nullopt;
    }

private:
    HANDLE m_handle;
    DWORD m_type;
    UniqueHandle m_event{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

/// Before the next look at a pipe that does not wait by itself.
void waitALittle()
{
    constexpr DWORD milliseconds = 5;
    Sleep(milliseconds);
}

class HandleStreams final : public StandardStreams
{
public:
    std::ptrdiff_t read(std::span<char> buffer) override
    {
        const std::scoped_lock lock(m_reading);
        for (;;) {
            const auto count = m_input.transfer(ReadFile, buffer.data(), buffer.size());
            // Somebody may write nothing into a pipe, which is not its end.
            if (count && (*count > 0 || !m_input.isPipe()))
                return *count;
            if (!count && GetLastError() != ERROR_NO_DATA)
                return GetLastError() == ERROR_BROKEN_PIPE || GetLastError() == ERROR_HANDLE_EOF
                           ? 0
                           : -1;
            if (!count)
                waitALittle();
        }
    }

    bool write(std::string_view bytes) override
    {
        while (!bytes.empty()) {
            const auto count = m_output.transfer(WriteFile, bytes.data(), bytes.size());
            if (!count)
                return false;
            if (*count == 0)
                waitALittle();
            bytes.remove_prefix(*count);
        }
        return true;
    }

    /// A pipe tells that its writer is gone, whatever is yet to be read. While it is being read the
    /// question would have to wait.
    bool inputHasEnded() override
    {
        const std::unique_lock lock(m_reading, std::try_to_lock);
        if (!lock || !m_input.isPipe())
            return false;
        constexpr ULONG connected = 3; // FILE_PIPE_CONNECTED_STATE
        IO_STATUS_BLOCK status{};
        FILE_PIPE_LOCAL_INFORMATION pipe{};
        if (NtQueryInformationFile(m_input.handle(), &status, &pipe, sizeof pipe,
                                   FilePipeLocalInformation) >= 0)
            return pipe.NamedPipeState != connected;
        return PeekNamedPipe(m_input.handle(), nullptr, 0, nullptr, nullptr, nullptr) == FALSE &&
               GetLastError() == ERROR_BROKEN_PIPE;
    }

private:
    HandleStream m_input{STD_INPUT_HANDLE};
    HandleStream m_output{STD_OUTPUT_HANDLE};
    std::mutex m_reading; ///< Held while somebody reads.
};

} // namespace

void windows_platform::joinParentConsole()
{
    SetLastError(ERROR_SUCCESS);
    hasJoinedConsole =
        !isOpen(GetStdHandle(STD_OUTPUT_HANDLE)) && AttachConsole(ATTACH_PARENT_PROCESS) != FALSE;
}

void windows_platform::leaveParentConsole()
{
    if (std::exchange(hasJoinedConsole, false))
        FreeConsole();
}

std::unique_ptr<StandardStreams> platform::prepareProcess()
{
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    SetDllDirectoryW(L"");
    joinParentConsole();
    fillStream(STD_INPUT_HANDLE, stdin, "CONIN$", "rb");
    fillStream(STD_OUTPUT_HANDLE, stdout, "CONOUT$", "wb");
    fillStream(STD_ERROR_HANDLE, stderr, "CONOUT$", "wb");
    if (isConsole(GetStdHandle(STD_OUTPUT_HANDLE)))
        static const ConsoleEncoding encoding; // until the very end, exit() included
    // Else the framework's log would go to a debugger's window wherever there is no console.
    qputenv("QT_FORCE_STDERR_LOGGING", "1");
    return std::make_unique<HandleStreams>();
}

std::unique_ptr<SharedProcessor> platform::makeSharedProcessor()
{
    return std::make_unique<AnyProcessor>();
}

} // namespace korvane
