// Process command lines as the system keeps them.
#include "platform/processes.h"

#include "platform/windows/sys/process_handle.h"
#include "platform/windows/sys/system_information.h"
#include "platform/windows/sys/system_library.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <winternl.h>

namespace korvane {

namespace {

using namespace windows_platform;

using QueryProcess = NTSTATUS(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);

} // namespace

QString platform::processCommandLine(unsigned int pid)
{
    constexpr int commandLineOfProcess = 60; // ProcessCommandLineInformation, since Windows 8.1
    constexpr std::size_t longest = 0x10000; // of a UNICODE_STRING, in bytes
    const UniqueHandle process = openProcess(pid);
    static const auto query =
        systemFunction<QueryProcess>(L"ntdll.dll", "NtQueryInformationProcess");
    if (process == nullptr || query == nullptr)
        return {};
    alignas(UNICODE_STRING) std::array<std::byte, sizeof(UNICODE_STRING) + longest> answer{};
    ULONG filled = 0;
    if (query(process.get(), commandLineOfProcess, answer.data(), ULONG{answer.size()}, &filled) <
        0)
        return {};
    UNICODE_STRING text;
    std::memcpy(&text, answer.data(), sizeof text);
    const auto bytes = std::span(answer).first(std::min<std::size_t>(filled, answer.size()));
    return textInside(bytes, text.Buffer, text.Length).value_or(QString());
}

} // namespace korvane
