// The lengths of a pause, and the words for it.
#include "desk/windows/pause_menu.h"

#include <QCoreApplication>

namespace korvane::desk {

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

QString stateText(const Desk& desk)
{
    if (QString problem = desk.problem(); !problem.isEmpty())
        return problem;
    switch (desk.state()) {
    case Desk::State::Listening:
        return QCoreApplication::translate("desk", "正在监听: AI 请求更改本机时会询问您。");
    case Desk::State::Paused:
        break;
    case Desk::State::Unavailable:
        return QCoreApplication::translate("desk", "没有在监听, 稍后会再试。");
    }
    if (!desk.pausedUntil().isValid())
        return QCoreApplication::translate("desk", "已暂停: 一切请求都被拒绝, 直到您恢复。");
    return QCoreApplication::translate("desk", "已暂停: %1 之前一切请求都被拒绝。")
        .arg(desk.pausedUntil().toString(u"HH:mm"_s));
}

PauseMenu::PauseMenu(Desk& desk, QWidget* parent) : QMenu(tr("暂时拒绝一切"), parent)
{
    using Time = std::optional<std::chrono::seconds>;
    QAction* const resume = addAction(tr("恢复询问"), &desk, &Desk::resume);
    addSeparator();
    const auto addPause = [&](const QString& name, Time time) {
        addAction(name, &desk, [&desk, time] { desk.pauseFor(time); });
    };
    addPause(tr("10 分钟"), 10min);
    addPause(tr("一小时"), 1h);
    addPause(tr("直到恢复"), {});
    const auto update = [&desk, resume] { resume->setEnabled(desk.isPaused()); };
    connect(&desk, &Desk::stateChanged, this, update);
    update();
}

} // namespace korvane::desk
