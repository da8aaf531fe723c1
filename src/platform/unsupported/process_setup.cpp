// Standard streams, signals and locale with what the standard library offers.
#include "platform/process_setup.h"

#include "platform/portable/any_processor.h"
#include "platform/portable/framework_log.h"
#include "platform/portable/utf8_locale.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>

namespace korvane {

namespace {

class LibraryStreams final : public StandardStreams
{
public:
    std::ptrdiff_t read(std::span<char> buffer) override
    {
        if (std::cin.peek() == std::istream::traits_type::eof())
            return std::cin.bad() ? -1 : 0;
        const auto size = static_cast<std::streamsize>(buffer.size());
        const std::streamsize buffered = std::cin.rdbuf()->in_avail();
        std::cin.read(buffer.data(), std::clamp<std::streamsize>(buffered, 1, size));
        return std::cin.gcount();
    }

    bool write(std::string_view bytes) override
    {
        return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size() &&
               std::fflush(stdout) == 0;
    }

    bool inputHasEnded() override { return false; }
};

} // namespace

std::unique_ptr<StandardStreams> platform::prepareProcess()
{
#ifdef SIGPIPE
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
#endif
    useUtf8Locale();
    readLogRulesWithoutHome();
    // Unshared from C stdio, the stream reads in blocks instead of single characters.
    std::ios::sync_with_stdio(false);
    return std::make_unique<LibraryStreams>();
}

std::unique_ptr<SharedProcessor> platform::makeSharedProcessor()
{
    return std::make_unique<AnyProcessor>();
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the platforms share one declaration.
std::unique_ptr<QObject> platform::watchForQuit(std::function<void()> /*quit*/)
{
    return nullptr;
}

} // namespace korvane
