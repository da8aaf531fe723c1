// The public face of every tool: name, description, schema and handler, read side by side.
#include "tools/catalog.h"

#include "mcp/schema.h"
#include "tools/handlers.h"

namespace korvane {

using namespace Qt::StringLiterals;

// One entry a tool, however many there are.
// NOLINTNEXTLINE(readability-function-size)
QList<ToolDefinition> toolCatalog()
{
    // clang-format off
    return {
        {u"list_processes"_s,
         u"列出系统当前所有进程 — PID, 名称, 父进程, 路径, 内存占用. 用于排查异常进程/找占内存的进程"_s,
         schemaEmpty(),
         toolListProcesses},
        {u"list_startup_items"_s,
         u"列出注册表 Run 项的开机启动项 (HKLM + HKCU). 用于检查开机自启程序, 排查启动慢/恶意自启"_s,
         schemaEmpty(),
         toolListStartupItems},
        {u"list_network_connections"_s,
         u"列出当前所有 TCP/IPv4 网络连接 — 含本地/远端地址, 状态, PID, 进程名. 用于排查异常网络连接/找哪个进程在占端口"_s,
         schemaEmpty(),
         toolListNetworkConnections},
        {u"find_process_by_port"_s,
         u"查指定端口被哪个进程占用 (只读) — 返回该本地端口上的全部 TCP/UDP 连接, 含协议/状态/PID/进程名。用于排查「端口被占, dev server 起不来」。要结束占用进程用 kill_by_port。"_s,
         schemaObject({{u"port"_s, propInteger(u"要查询的本地端口号 (1-65535)"_s)}},
                      {u"port"_s}),
         toolFindProcessByPort},
        {u"list_uninstall_entries"_s,
         u"列出已安装软件 (从 Uninstall 注册表读) — 名称, 版本, 发布者, 安装位置, 估算大小. 用于盘点已装软件 / 找占空间的程序"_s,
         schemaEmpty(),
         toolListUninstallEntries},
        {u"list_services"_s,
         u"列出系统全部 Windows 服务 (SCM API) — 名称, 显示名, 描述, 状态 (运行中/已停止), 启动类型 (自动/手动/禁用), PID, 二进制路径. 用于排查可疑服务 / 盘点驱动服务 / 找占资源的后台服务. 当前 tool 仅读取服务信息, 启动/停止/启用/禁用写操作通过独立授权 tool 执行 (需 Admin + consent)"_s,
         schemaEmpty(),
         toolListServices},
        {u"find_large_files"_s,
         u"在指定目录递归找大文件, 按大小降序返回 top N. 用于找占空间的文件 (老旧安装包/缓存/日志). 同步扫描可能耗时 5-30 秒"_s,
         schemaObject({{u"root_path"_s, propString(u"扫描根目录 (绝对路径). 默认为用户 Home 目录"_s)},
                       {u"min_size_bytes"_s, propInteger(u"最小文件大小 (字节). 默认 50MB = 52428800"_s, 52428800)},
                       {u"max_results"_s, propInteger(u"返回的 top N 数量. 默认 50"_s, 50)}}),
         toolFindLargeFiles},
        {u"scan_junk"_s,
         u"扫描可清理的磁盘垃圾 (只读) — 约 30 个分类, 按 group 分三组: system(临时/日志/转储/缩略图/更新缓存等), browser(Chrome/Edge/Firefox 缓存), devtools(npm/pip/gradle/cargo/uv/JetBrains/Maven 等开发缓存, 开发机大头)。每项返回 group/safety/可释放空间/文件数/代表性路径。safety=safe 绝对安全删, safety=caution 删后有副作用(更新需重下/索引重建/依赖重下)。清理用 clean_junk 传回这里拿到的 category_id; browser 类清理前需关闭对应浏览器。"_s,
         schemaEmpty(),
         toolScanJunk},
        {u"verify_signatures"_s,
         u"对 exe 文件做 Windows Authenticode 数字签名验证 (只读)。传 paths 数组验指定文件; 不传则验当前全部进程的 exe (去重)。返回每个的签名状态 (已签名/签名无效/未签名/未知) + 汇总计数。用于排查可疑进程 (未签名/签名无效的 exe 风险高)。首次验签每文件 ~50-300ms, 缓存命中秒回 (结果跨会话持久化, mtime 未变直接复用); 验全部进程可能耗时数十秒。排查可疑进程时建议传 only_suspicious=true, 输出只留非已签名条目, 极大省 token。"_s,
         schemaObject({{u"paths"_s, propStringArray(u"要验签的 exe 绝对路径数组. 留空 = 验当前全部进程的 exe"_s)},
                       {u"only_suspicious"_s, propBoolean(u"默认 false. true = results[] 仅返回非'已签名'条目 (签名无效/未签名/未知), 计数仍含全部. 排查可疑进程时省 token"_s)},
                       {u"include_signer"_s, propBoolean(u"默认 false. true = 对有签名条目额外返回 signer 字段(签名者证书主体名, 如 'Microsoft Corporation'). 区分微软官方 vs 第三方厂商; 每个有签名文件多一次读盘, 慎对全量进程开启"_s)}}),
         toolVerifySignatures},
        {u"get_app_info"_s,
         u"返回 Korvane 自身的元信息 — 版本, 平台, Qt 版本, 数据目录. AI client 初次握手后建议先调一次, 用于了解可用能力上下文"_s,
         schemaEmpty(),
         toolGetAppInfo},
        {u"get_system_metrics"_s,
         u"采集当前系统实时指标 — CPU%, 物理内存(占用%/已用/总量), 提交内存(commit charge 承诺值/上限/占比), 磁盘忙率与读写速率, 网络收发速率。即时采样(~250ms)。用于回答「电脑卡不卡/内存紧不紧」。注意: 提交内存逼近上限(commit_percent>90)才是真风险; 物理内存占用高常是正常缓存, 不要建议「清理内存」。"_s,
         schemaEmpty(),
         toolGetSystemMetrics},
        {u"get_process_command_line"_s,
         u"读取指定 PID 进程的完整命令行 (读 PEB)。用于区分同名进程实际跑的参数 (哪个 svchost/python/node 是什么)。受保护/系统进程可能读不到 (返回空)。"_s,
         schemaObject({{u"pid"_s, propInteger(u"目标进程 PID"_s)}},
                      {u"pid"_s}),
         toolGetProcessCommandLine},
        {u"get_process_tree"_s,
         u"返回按父子关系嵌套的进程树 (每个节点 pid/name/children)。用于看进程派生关系 — 哪个进程拉起了哪些子进程, 排查可疑派生链。"_s,
         schemaEmpty(),
         toolGetProcessTree},
        {u"kill_process"_s,
         u"强制结束指定 PID 的进程。⚠ 这是写操作 — 执行前会在 Korvane 主程序弹窗请求用户授权, 用户拒绝或主程序未运行则不会执行 (返回 isError)。建议先用 list_processes 确认目标 PID。"_s,
         schemaObject({{u"pid"_s, propInteger(u"要结束的进程 PID"_s)},
                       {u"reason"_s, propString(u"结束该进程的理由, 会展示在用户授权弹窗中"_s)}},
                      {u"pid"_s}),
         toolKillProcess},
        {u"kill_by_port"_s,
         u"结束占用指定端口的所有进程。⚠ 写操作 — 执行前在 Korvane 主程序弹窗请求授权, 用户拒绝或主程序未运行则不执行 (返回 isError)。会跳过系统关键进程 (System/Idle) 与 Korvane 自身。建议先用 find_process_by_port 确认目标。"_s,
         schemaObject({{u"port"_s, propInteger(u"要释放的本地端口号 (1-65535)"_s)},
                       {u"reason"_s, propString(u"结束这些进程的理由, 会展示在用户授权弹窗中"_s)}},
                      {u"port"_s}),
         toolKillByPort},
        {u"set_startup_item_enabled"_s,
         uR"(启用或禁用一个开机启动项 (写 StartupApproved\Run 注册表, Task Manager 同款机制)。⚠ 这是写操作 — 执行前会在 Korvane 主程序弹窗请求用户授权。用 list_startup_items 拿 source/name 后再调本 tool。HKLM 项需以管理员身份运行 Korvane 才能写入。)"_s,
         schemaObject({{u"source"_s, propStringEnum({u"hklm"_s, u"hkcu"_s}, u"启动项来源: hklm = 系统级 (HKEY_LOCAL_MACHINE), hkcu = 用户级 (HKEY_CURRENT_USER)"_s)},
                       {u"name"_s, propString(u"注册表 value 名 (启动项名称, 大小写敏感)"_s)},
                       {u"enabled"_s, propBoolean(u"true=启用, false=禁用"_s)},
                       {u"reason"_s, propString(u"执行该操作的理由, 会展示在用户授权弹窗中"_s)}},
                      {u"source"_s, u"name"_s, u"enabled"_s}),
         toolSetStartupItemEnabled},
        {u"unlock_file"_s,
         u"解锁被占用的文件/文件夹 — 关闭占用它的进程句柄 (Restart Manager)。⚠ 这是写操作 — 执行前会在 Korvane 主程序弹窗请求用户授权。文件未被任何进程占用时直接返回成功。"_s,
         schemaObject({{u"path"_s, propString(u"要解锁的文件或文件夹绝对路径"_s)},
                       {u"reason"_s, propString(u"解锁该文件的理由, 会展示在用户授权弹窗中"_s)}},
                      {u"path"_s}),
         toolUnlockFile},
        {u"clean_junk"_s,
         u"清理指定分类的磁盘垃圾 — 把它们的内容移到回收站 (可恢复)。⚠ 写操作 — 执行前会在 Korvane 主程序弹窗请求用户授权, 用户拒绝或主程序未运行则不执行 (返回 isError)。先用 scan_junk 拿 category_id, 再传 category_ids[] 调本 tool。对 safety=caution 的分类(windows_update/prefetch)建议先向用户说明副作用。"_s,
         schemaObject({{u"category_ids"_s, propStringArray(uR"(要清理的分类 id 数组 (来自 scan_junk 的 category_id), 如 ["user_temp","crash_dumps"])"_s)},
                       {u"reason"_s, propString(u"清理这些垃圾的理由, 会展示在用户授权弹窗中"_s)}},
                      {u"category_ids"_s}),
         toolCleanJunk},
        {u"start_service"_s,
         u"启动一个已停止的 Windows 服务 (StartServiceW)。⚠ 写操作 — 执行前在 Korvane 主程序弹窗请求授权, 需管理员权限。已运行则直接返回。用 list_services 拿 name 后再调。"_s,
         schemaObject({{u"name"_s, propString(u"服务键名 (非显示名), 来自 list_services"_s)},
                       {u"reason"_s, propString(u"启动该服务的理由, 展示在授权弹窗中"_s)}},
                      {u"name"_s}),
         toolStartService},
        {u"stop_service"_s,
         u"停止一个运行中的 Windows 服务 (ControlService)。⚠ 写操作 — 执行前弹窗授权, 需管理员。已停止则直接返回。注意: 依赖此服务的功能可能失效。"_s,
         schemaObject({{u"name"_s, propString(u"服务键名, 来自 list_services"_s)},
                       {u"reason"_s, propString(u"停止该服务的理由, 展示在授权弹窗中"_s)}},
                      {u"name"_s}),
         toolStopService},
        {u"set_service_start_type"_s,
         u"设置 Windows 服务启动类型 (ChangeServiceConfigW)。⚠ 写操作 — 弹窗授权, 需管理员。下次启动生效, 不影响当前运行状态。引导/系统驱动不可改。"_s,
         schemaObject({{u"name"_s, propString(u"服务键名, 来自 list_services"_s)},
                       {u"start_type"_s, propStringEnum({u"auto"_s, u"auto_delayed"_s, u"manual"_s, u"disabled"_s}, u"启动类型: auto=自动 / auto_delayed=自动(延迟) / manual=手动 / disabled=禁用"_s)},
                       {u"reason"_s, propString(u"修改启动类型的理由, 展示在授权弹窗中"_s)}},
                      {u"name"_s, u"start_type"_s}),
         toolSetServiceStartType},
    };
    // clang-format on
}

void registerKorvaneTools(McpServer& server)
{
    const QList<ToolDefinition> catalog = toolCatalog();
    for (const ToolDefinition& tool : catalog)
        server.registerTool(tool.name, tool.description, tool.inputSchema, tool.handler);
}

} // namespace korvane
