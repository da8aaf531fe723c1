// The console's demands to end, brought into the event loop.
#include "platform/process_setup.h"

#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/parent_console.h"

#include <mutex>
#include <utility>

namespace korvane {

namespace {

using namespace windows_platform;

class QuitEvents final : public QObject
{
public:
    explicit QuitEvents(std::function<void()> quit) : m_quit(std::move(quit))
    {
        const std::scoped_lock lock(s_lock);
        s_instance = this;
        // Never taken away again: that may have to wait for one that is at work.
        static const BOOL isHandled = SetConsoleCtrlHandler(handle, TRUE);
        static_cast<void>(isHandled);
        QMetaObject::invokeMethod(this, leaveParentConsole, Qt::QueuedConnection);
    }
    ~QuitEvents() override
    {
        const std::scoped_lock lock(s_lock);
        if (s_instance == this)
            s_instance = nullptr;
    }
    Q_DISABLE_COPY_MOVE(QuitEvents)

private:
    /// On a thread of the system's. False lets it end the program.
    static BOOL WINAPI handle(DWORD event)
    {
        {
            const std::scoped_lock lock(s_lock);
            if (s_instance == nullptr || std::exchange(s_instance->m_isAsked, true))
                return FALSE;
            QMetaObject::invokeMethod(
                s_instance, [asked = s_instance] { asked->m_quit(); }, Qt::QueuedConnection);
        }
        // The program is ended with the return from these, or after five seconds; the wait ends with it.
        constexpr DWORD timeToEnd = 4500;
        if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
            Sleep(timeToEnd);
        return TRUE;
    }

    static inline std::mutex s_lock; ///< Guards the instance, and whether it was asked.
    static inline QuitEvents* s_instance = nullptr;

    std::function<void()> m_quit;
    bool m_isAsked = false;
};

} // namespace

std::unique_ptr<QObject> platform::watchForQuit(std::function<void()> quit)
{
    return std::make_unique<QuitEvents>(std::move(quit));
}

} // namespace korvane
