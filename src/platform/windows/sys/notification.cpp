// A message beside an icon in the notification area.
#include "platform/notification.h"

#include "platform/windows/sys/handle.h"
#include "platform/windows/sys/text.h"

#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <array>
#include <span>

#include <shellapi.h>

namespace korvane {

namespace {

using namespace windows_platform;

using UniqueWindow = std::unique_ptr<HWND__, CloseBy<DestroyWindow>>;
using UniqueIcon = std::unique_ptr<HICON__, CloseBy<DestroyIcon>>;

/// As much of the text as there is room for, with its end and no half of a character.
void fill(std::span<wchar_t> room, const QString& text)
{
    auto length = std::min(text.size(), static_cast<qsizetype>(room.size()) - 1);
    if (length < text.size() && text.at(length - 1).isHighSurrogate())
        --length;
    text.first(length).toWCharArray(room.data());
    room[static_cast<std::size_t>(length)] = L'\0';
}

/// The program's own icon; null where it has none.
UniqueIcon programIcon()
{
    HICON icon = nullptr;
    const QString program = QDir::toNativeSeparators(QCoreApplication::applicationFilePath());
    ExtractIconExW(wide(program), 0, nullptr, &icon, 1);
    return UniqueIcon(icon);
}

class Notification final : public QObject
{
public:
    Notification() = default;
    ~Notification() override
    {
        if (m_isShown)
            Shell_NotifyIconW(NIM_DELETE, &m_data);
    }
    Q_DISABLE_COPY_MOVE(Notification)

    bool show(const QString& title, const QString& text)
    {
        m_data.cbSize = sizeof m_data;
        m_data.hWnd = m_window.get();
        m_data.uFlags = NIF_ICON | NIF_TIP | NIF_INFO;
        m_data.hIcon = m_icon ? m_icon.get() : LoadIconW(nullptr, IDI_INFORMATION);
        m_data.dwInfoFlags = NIIF_INFO;
        fill(m_data.szTip, title);
        fill(m_data.szInfoTitle, title);
        fill(m_data.szInfo, text);
        m_isShown = m_window && Shell_NotifyIconW(NIM_ADD, &m_data) != FALSE;
        return m_isShown;
    }

private:
    /// Hears of nothing, but the system wants one.
    UniqueWindow m_window{CreateWindowExW(0, L"STATIC", nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE,
                                          nullptr, nullptr, nullptr)};
    UniqueIcon m_icon = programIcon();
    NOTIFYICONDATAW m_data{};
    bool m_isShown = false;
};

} // namespace

std::unique_ptr<QObject> platform::showNotification(const QString& title, const QString& text)
{
    auto notification = std::make_unique<Notification>();
    return notification->show(title, text) ? std::move(notification) : nullptr;
}

} // namespace korvane
