// The tray's icon, its menu and its messages.
#include "desk/windows/tray.h"

#include "desk/risk.h"
#include "desk/windows/pause_menu.h"
#include "platform/notification.h"

#include <QGuiApplication>

namespace korvane::desk {

using namespace Qt::StringLiterals;

Tray::Tray(Desk& desk) : m_desk(desk), m_waiting(m_menu.addAction({}, this, &Tray::questionWanted))
{
    m_menu.addAction(tr("打开授权台"), this, &Tray::windowWanted);
    m_menu.addMenu(new PauseMenu(m_desk, &m_menu));
    m_menu.addSeparator();
    m_menu.addAction(tr("退出"), qApp, &QCoreApplication::quit);
    m_icon.setContextMenu(&m_menu);
    connect(&m_icon, &QSystemTrayIcon::messageClicked, this, &Tray::questionWanted);
    connect(&m_icon, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Context)
                    return;
                m_desk.questions().isEmpty() ? Q_EMIT windowWanted() : Q_EMIT questionWanted();
            });
    connect(&m_desk, &Desk::questionAdded, this, &Tray::tellOfQuestion);
    connect(&m_desk, &Desk::questionAdded, this, &Tray::update);
    connect(&m_desk, &Desk::questionEnded, this, &Tray::update);
    connect(&m_desk, &Desk::stateChanged, this, &Tray::update);
    update();
    m_icon.show(); // Where the tray comes later, it appears then.
}

void Tray::update()
{
    const qsizetype count = m_desk.questions().size();
    if (count == 0)
        m_notification.reset();
    const QString waiting =
        count == 0 ? tr("没有等待答复的请求") : tr("等待答复的请求: %1").arg(count);
    m_waiting->setText(waiting);
    m_waiting->setEnabled(count > 0);
    m_icon.setToolTip(u"%1\n%2\n%3"_s.arg(tr("Korvane 授权台"), stateText(m_desk), waiting));
    const QIcon icon = QGuiApplication::windowIcon();
    constexpr int usualSize = 64;
    const bool isListening = m_desk.state() == Desk::State::Listening;
    m_icon.setIcon(isListening ? icon : QIcon(icon.pixmap(usualSize, QIcon::Disabled)));
}

/// In the desk's words alone: who shows the message may take those of others for markup.
void Tray::tellOfQuestion()
{
    const QString action = riskOf(m_desk.questions().last().request.action).allow;
    const QString title = tr("授权请求");
    const QString text = tr("AI 想更改本机, 正在等您答复: %1?").arg(action);
    m_notification = platform::showNotification(title, text);
    if (!m_notification)
        m_icon.showMessage(title, text);
}

} // namespace korvane::desk
