<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en" sourcelanguage="zh_CN">
<context>
    <name>desk</name>
    <message>
        <source>警告: 无法得知请求来自哪个程序。</source>
        <translation>Warning: it cannot be told which program asks.</translation>
    </message>
    <message>
        <source>警告: 请求来自别的程序, 不是与授权台一同安装的 korvane-mcp。</source>
        <translation>Warning: another program asks, not the korvane-mcp that was installed with this desk.</translation>
    </message>
    <message>
        <source>无法监听 %1: %2</source>
        <translation>Cannot listen on %1: %2</translation>
    </message>
    <message>
        <source>%1 已由另一个授权台占用: %2。请在那里答复或先退出它。</source>
        <translation>%1 is in use by another consent desk: %2. Answer there or quit it first.</translation>
    </message>
    <message>
        <source>%1 已由另一个授权台占用 (PID %2, 用户 %3)。请在那里答复或先退出它; 若它属于别人, 请为授权台和客户端设置同一个属于自己的 TMPDIR。</source>
        <translation>%1 is in use by another consent desk (PID %2, user %3). Answer there or quit it first; if it is somebody else&apos;s, set the same TMPDIR of your own for the desk and the client.</translation>
    </message>
    <message>
        <source>无法创建 %1。请检查该目录的权限, 或为授权台和客户端设置同一个可写的 TMPDIR。</source>
        <translation>Cannot create %1. Check the permissions of that directory, or set the same writable TMPDIR for the desk and the client.</translation>
    </message>
    <message>
        <source>%1 不是套接字, 请先移走它。</source>
        <translation>%1 is not a socket; please move it away first.</translation>
    </message>
    <message>
        <source>%1 属于用户 %2。请让其删除, 或为授权台和客户端设置同一个属于自己的 TMPDIR。</source>
        <translation>%1 belongs to user %2. Have them delete it, or set the same TMPDIR of your own for the desk and the client.</translation>
    </message>
    <message>
        <source>%1 已由另一个程序占用: %2。</source>
        <translation>%1 is in use by another program: %2.</translation>
    </message>
    <message>
        <source>记录无法写入, 因此不能授权: %1</source>
        <translation>The history cannot be written, so nothing can be allowed: %1</translation>
    </message>
    <message>
        <source>答复已送达</source>
        <translation>answer delivered</translation>
    </message>
    <message>
        <source>答复时请求方已离开</source>
        <translation>the asking program had gone</translation>
    </message>
    <message>
        <source>答复是否送达不明</source>
        <translation>delivery unknown</translation>
    </message>
    <message>
        <source>无法创建目录 %1</source>
        <translation>Cannot create the directory %1</translation>
    </message>
    <message>
        <source>另一个授权台 (PID %1) 正在使用 %2</source>
        <translation>Another consent desk (PID %1) is using %2</translation>
    </message>
    <message>
        <source>目录 %1 不可写</source>
        <translation>The directory %1 cannot be written</translation>
    </message>
    <message>
        <source>磁盘写入失败</source>
        <translation>Writing to the disk failed</translation>
    </message>
    <message>
        <source>%1 (客户端须使用同一个 TMPDIR)</source>
        <translation>%1 (the client needs the same TMPDIR)</translation>
    </message>
    <message>
        <source>--history 之后应为正整数。</source>
        <translation>--history takes a positive number.</translation>
    </message>
    <message>
        <source>--terminal 需要在终端中运行。</source>
        <translation>--terminal needs a terminal.</translation>
    </message>
    <message>
        <source>显示 AI 想对本机做的更改, 由您允许或拒绝。
授权通道: %1
授权记录: %2</source>
        <translation>Shows what an AI wants to change on this machine, for you to allow or refuse.
Consent channel: %1
History: %2</translation>
    </message>
    <message>
        <source>在终端中询问, 不用窗口。</source>
        <translation>Ask in the terminal instead of in windows.</translation>
    </message>
    <message>
        <source>启动时不显示主窗口。</source>
        <translation>Start without showing the main window.</translation>
    </message>
    <message>
        <source>显示最近的授权记录, 默认 20 条。</source>
        <translation>Print the latest entries of the history, 20 by default.</translation>
    </message>
    <message>
        <source>记录的条数。</source>
        <translation>Number of entries.</translation>
    </message>
    <message>
        <source>已允许</source>
        <translation>Allowed</translation>
    </message>
    <message>
        <source>本人</source>
        <translation>You</translation>
    </message>
    <message>
        <source>已拒绝</source>
        <translation>Refused</translation>
    </message>
    <message>
        <source>超时</source>
        <translation>Time-out</translation>
    </message>
    <message>
        <source>暂停中</source>
        <translation>Pause</translation>
    </message>
    <message>
        <source>授权台退出</source>
        <translation>Desk quit</translation>
    </message>
    <message>
        <source>会话结束</source>
        <translation>Session ended</translation>
    </message>
    <message>
        <source>格式有误</source>
        <translation>Malformed</translation>
    </message>
    <message>
        <source>请求过多</source>
        <translation>Too many</translation>
    </message>
    <message>
        <source>无法记录</source>
        <translation>Not recordable</translation>
    </message>
    <message>
        <source>未答复</source>
        <translation>No answer</translation>
    </message>
    <message>
        <source>请求方已离开</source>
        <translation>Asker left</translation>
    </message>
    <message>
        <source>结束进程会丢失它尚未保存的工作, 且无法撤销。</source>
        <translation>Ending a process loses its unsaved work and cannot be undone.</translation>
    </message>
    <message>
        <source>允许结束进程</source>
        <translation>Allow ending the process</translation>
    </message>
    <message>
        <source>结束占用端口的进程会丢失其未保存的工作, 连接随之中断, 且无法撤销。</source>
        <translation>Ending the processes on a port loses their unsaved work, breaks their connections, and cannot be undone.</translation>
    </message>
    <message>
        <source>下次登录或开机时, 该程序是否自动运行会随之改变; 可以再改回来。</source>
        <translation>Changes whether that program runs at the next login or start; can be changed back.</translation>
    </message>
    <message>
        <source>允许更改启动项</source>
        <translation>Allow changing the startup item</translation>
    </message>
    <message>
        <source>关闭别的程序打开的文件或结束这些程序, 可能丢失或损坏尚未保存的数据。</source>
        <translation>Closing files that other programs have open, or ending these, may lose or damage unsaved data.</translation>
    </message>
    <message>
        <source>允许解除占用</source>
        <translation>Allow unlocking the file</translation>
    </message>
    <message>
        <source>文件会移到回收站, 清空回收站之前可以还原。</source>
        <translation>Files are moved to the trash and can be restored until it is emptied.</translation>
    </message>
    <message>
        <source>允许移到回收站</source>
        <translation>Allow moving to the trash</translation>
    </message>
    <message>
        <source>服务启动后会以它自己的权限在后台运行, 还可能带起它依赖的服务。</source>
        <translation>The service will run in the background with its own rights, and may start others it needs.</translation>
    </message>
    <message>
        <source>允许启动服务</source>
        <translation>Allow starting the service</translation>
    </message>
    <message>
        <source>停止别的程序或服务所依赖的服务, 它们会随之停止或出错。</source>
        <translation>Programs and services that need this one will stop or fail with it.</translation>
    </message>
    <message>
        <source>允许停止服务</source>
        <translation>Allow stopping the service</translation>
    </message>
    <message>
        <source>从下次开机起生效; 禁用别处需要的服务, 可能使系统功能缺失甚至无法正常启动。</source>
        <translation>Takes effect at the next start; disabling a service that others need may break features or keep the system from starting.</translation>
    </message>
    <message>
        <source>允许更改启动类型</source>
        <translation>Allow changing the start type</translation>
    </message>
    <message>
        <source>授权台不认识此操作, 无法说明它的后果。除非完全了解, 否则请拒绝。</source>
        <translation>The desk does not know this action and cannot say what it does. Refuse unless you understand it fully.</translation>
    </message>
    <message>
        <source>允许未知操作</source>
        <translation>Allow an unknown action</translation>
    </message>
    <message>
        <source>授权请求, 共 %1 个等待中</source>
        <translation>Consent request, %1 waiting</translation>
    </message>
    <message>
        <source>以下是请求方的话:</source>
        <translation>In the words of the asking program:</translation>
    </message>
    <message>
        <source>以下是 AI 自述的理由, 未经核实:</source>
        <translation>The AI&apos;s own reason, unverified:</translation>
    </message>
    <message>
        <source>请求方:</source>
        <translation>Asked by:</translation>
    </message>
    <message>
        <source>后果: %1</source>
        <translation>Risk: %1</translation>
    </message>
    <message>
        <source>%1? 输入 y 并回车为允许, 其他为拒绝; 剩余 %2 秒 [y/N] </source>
        <translation>%1? Type y and Enter to allow, anything else refuses; %2 s left [y/N] </translation>
    </message>
    <message>
        <source>正在监听 %1; 按 Ctrl+C 退出。</source>
        <translation>Listening on %1; press Ctrl+C to quit.</translation>
    </message>
    <message>
        <source>正在监听: AI 请求更改本机时会询问您。</source>
        <translation>Listening: you will be asked when an AI wants to change this machine.</translation>
    </message>
    <message>
        <source>没有在监听, 稍后会再试。</source>
        <translation>Not listening; trying again soon.</translation>
    </message>
    <message>
        <source>已暂停: 一切请求都被拒绝, 直到您恢复。</source>
        <translation>Paused: everything is refused until you change it.</translation>
    </message>
    <message>
        <source>已暂停: %1 之前一切请求都被拒绝。</source>
        <translation>Paused: everything is refused until %1.</translation>
    </message>
</context>
<context>
    <name>korvane::desk::HistoryModel</name>
    <message>
        <source>请求方的话:</source>
        <translation>In the words of the asking program:</translation>
    </message>
    <message>
        <source>AI 自述的理由, 未经核实:</source>
        <translation>The AI&apos;s own reason, unverified:</translation>
    </message>
    <message>
        <source>时间</source>
        <translation>Time</translation>
    </message>
    <message>
        <source>请求方</source>
        <translation>Asked by</translation>
    </message>
    <message>
        <source>操作</source>
        <translation>Action</translation>
    </message>
    <message>
        <source>概要</source>
        <translation>Summary</translation>
    </message>
    <message>
        <source>答复</source>
        <translation>Answer</translation>
    </message>
    <message>
        <source>决定者</source>
        <translation>Decided by</translation>
    </message>
    <message>
        <source>用时 (秒)</source>
        <translation>Seconds</translation>
    </message>
</context>
<context>
    <name>korvane::desk::MainWindow</name>
    <message>
        <source>随会话启动</source>
        <translation>Start with the session</translation>
    </message>
    <message>
        <source>Korvane 授权台</source>
        <translation>Korvane Consent Desk</translation>
    </message>
    <message>
        <source>暂时拒绝一切</source>
        <translation>Refuse everything for now</translation>
    </message>
    <message>
        <source>按文字筛选记录</source>
        <translation>Filter the history by text</translation>
    </message>
    <message>
        <source>授权记录</source>
        <translation>History</translation>
    </message>
    <message>
        <source>所选记录的详情</source>
        <translation>Details of the selected entry</translation>
    </message>
    <message>
        <source>复制详情</source>
        <translation>Copy details</translation>
    </message>
    <message>
        <source>还没有记录。

AI 想结束进程、停止服务、清理文件等时, 这里会弹出窗口询问您; 每次请求和您的决定都会列在这里。

连接客户端: 在 AI 客户端的 MCP 设置中加入以下内容, 再重新启动客户端。

%1</source>
        <translation>Nothing has been asked yet.

When an AI wants to end a process, stop a service or clean up files, a window asks you; each request and what you decided are listed here.

To connect a client: add this to the MCP settings of your AI client, and restart the client.

%1</translation>
    </message>
    <message>
        <source>授权通道: %1</source>
        <translation>Consent channel: %1</translation>
    </message>
    <message>
        <source>退出</source>
        <translation>Quit</translation>
    </message>
</context>
<context>
    <name>korvane::desk::PauseMenu</name>
    <message>
        <source>暂时拒绝一切</source>
        <translation>Refuse everything for now</translation>
    </message>
    <message>
        <source>恢复询问</source>
        <translation>Ask me again</translation>
    </message>
    <message>
        <source>10 分钟</source>
        <translation>For 10 minutes</translation>
    </message>
    <message>
        <source>一小时</source>
        <translation>For an hour</translation>
    </message>
    <message>
        <source>直到恢复</source>
        <translation>Until I change it</translation>
    </message>
</context>
<context>
    <name>korvane::desk::QuestionDialog</name>
    <message>
        <source>授权请求 - Korvane 授权台</source>
        <translation>Consent Request - Korvane Consent Desk</translation>
    </message>
    <message>
        <source>后果:</source>
        <translation>Risk:</translation>
    </message>
    <message>
        <source>请求方</source>
        <translation>Asked by</translation>
    </message>
    <message>
        <source>请求方:</source>
        <translation>Asked by:</translation>
    </message>
    <message>
        <source>请求方的程序文件</source>
        <translation>File of the asking program</translation>
    </message>
    <message>
        <source>程序文件:</source>
        <translation>Program file:</translation>
    </message>
    <message>
        <source>以下是请求方的话</source>
        <translation>In the words of the asking program</translation>
    </message>
    <message>
        <source>请求方的标题</source>
        <translation>Title by the asking program</translation>
    </message>
    <message>
        <source>请求方的概要</source>
        <translation>Summary by the asking program</translation>
    </message>
    <message>
        <source>请求方的明细</source>
        <translation>Details by the asking program</translation>
    </message>
    <message>
        <source>以下是 AI 自述的理由, 未经核实</source>
        <translation>The AI&apos;s own reason, unverified</translation>
    </message>
    <message>
        <source>AI 自述的理由, 未经核实</source>
        <translation>The AI&apos;s own reason, unverified</translation>
    </message>
    <message>
        <source>拒绝</source>
        <translation>Refuse</translation>
    </message>
    <message>
        <source>第 1 个, 共 %1 个</source>
        <translation>1 of %1</translation>
    </message>
    <message>
        <source>剩余 %1 秒, 之后自动拒绝</source>
        <translation>Refused automatically in %1 s</translation>
    </message>
</context>
<context>
    <name>korvane::desk::Tray</name>
    <message>
        <source>打开授权台</source>
        <translation>Open the consent desk</translation>
    </message>
    <message>
        <source>退出</source>
        <translation>Quit</translation>
    </message>
    <message>
        <source>没有等待答复的请求</source>
        <translation>No requests are waiting</translation>
    </message>
    <message>
        <source>等待答复的请求: %1</source>
        <translation>Requests waiting: %1</translation>
    </message>
    <message>
        <source>Korvane 授权台</source>
        <translation>Korvane Consent Desk</translation>
    </message>
    <message>
        <source>授权请求</source>
        <translation>Consent request</translation>
    </message>
    <message>
        <source>AI 想更改本机, 正在等您答复: %1?</source>
        <translation>An AI wants to change this machine and waits for your answer: %1?</translation>
    </message>
</context>
</TS>
