// The risk of each action that the server asks for.
#include "desk/risk.h"

#include <QCoreApplication>

#include <algorithm>
#include <array>

namespace korvane::desk {

namespace {

struct Action
{
    const char* name;
    const char* risk;
    const char* allow;
};

// clang-format off
constexpr std::array actions{
    Action{"kill_process", QT_TRANSLATE_NOOP("desk", "结束进程会丢失它尚未保存的工作, 且无法撤销。"),
           QT_TRANSLATE_NOOP("desk", "允许结束进程")},
    Action{"kill_by_port", QT_TRANSLATE_NOOP("desk", "结束占用端口的进程会丢失其未保存的工作, 连接随之中断, 且无法撤销。"),
           QT_TRANSLATE_NOOP("desk", "允许结束进程")},
    Action{"set_startup_item_enabled", QT_TRANSLATE_NOOP("desk", "下次登录或开机时, 该程序是否自动运行会随之改变; 可以再改回来。"),
           QT_TRANSLATE_NOOP("desk", "允许更改启动项")},
    Action{"unlock_file", QT_TRANSLATE_NOOP("desk", "关闭别的程序打开的文件或结束这些程序, 可能丢失或损坏尚未保存的数据。"),
           QT_TRANSLATE_NOOP("desk", "允许解除占用")},
    Action{"clean_junk", QT_TRANSLATE_NOOP("desk", "文件会移到回收站, 清空回收站之前可以还原。"),
           QT_TRANSLATE_NOOP("desk", "允许移到回收站")},
    Action{"start_service", QT_TRANSLATE_NOOP("desk", "服务启动后会以它自己的权限在后台运行, 还可能带起它依赖的服务。"),
           QT_TRANSLATE_NOOP("desk", "允许启动服务")},
    Action{"stop_service", QT_TRANSLATE_NOOP("desk", "停止别的程序或服务所依赖的服务, 它们会随之停止或出错。"),
           QT_TRANSLATE_NOOP("desk", "允许停止服务")},
    Action{"set_service_start_type", QT_TRANSLATE_NOOP("desk", "从下次开机起生效; 禁用别处需要的服务, 可能使系统功能缺失甚至无法正常启动。"),
           QT_TRANSLATE_NOOP("desk", "允许更改启动类型")},
};
// clang-format on

} // namespace

Risk riskOf(const QString& action)
{
    const auto* const found =
        std::find_if(actions.begin(), actions.end(), [&action](const Action& known) {
            return action == QLatin1StringView(known.name);
        });
    if (found == actions.end())
        return {false,
                QCoreApplication::translate(
                    "desk", "授权台不认识此操作, 无法说明它的后果。除非完全了解, 否则请拒绝。"),
                QCoreApplication::translate("desk", "允许未知操作")};
    return {true, QCoreApplication::translate("desk", found->risk),
            QCoreApplication::translate("desk", found->allow)};
}

} // namespace korvane::desk
