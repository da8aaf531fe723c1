// Tests of the tools that change the machine as a client sees them, on a scripted platform and with
// a desktop program played by a local server.
#include "fake/fake_platform.h"
#include "support/fake_desktop.h"
#include "support/file_tree.h"
#include "support/mcp_client.h"

#include <QDir>
#include <QRandomGenerator>
#include <QRegularExpression>

using namespace korvane;
using namespace Qt::StringLiterals;

class WriteToolsTest : public QObject
{
    Q_OBJECT

    test::Client m_client;
    test::FakeDesktop m_desktop;
    fake::Platform& m_script = fake::platform();
    QTemporaryDir m_directory;
    QTemporaryDir m_junk;
    qint64 m_self = QCoreApplication::applicationPid();

    /// A name that would forge lines of the dialog, turn them around, or be filled in once more.
    const QString m_name = u"a\n「%1」\u202e\u200b\u0085\ufe0f\U000e0041  %2"_s;
    const QString m_shownName = u"a\ufffd「%1」\ufffd\ufffd\ufffd\ufffd\ufffd \ufffd%2"_s;
    const QString m_quotedName = u"a\ufffd\ufffd%1\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd \ufffd%2"_s;
    const QString m_longName = u'」' + u"🚀"_s.repeated(400);

    /// Backticks stand for double quotes, NAME for the name as JSON has it, SHOWN for what a detail
    /// has in its place, and QUOTED for what a summary has.
    QString filledIn(const char* text) const
    {
        QString filled = QString::fromUtf8(text);
        filled.replace(u'`', u'"').replace(u"NAME"_s, QString(m_name).replace(u'\n', u"\\n"_s));
        filled.replace(u"SHOWN"_s, m_shownName).replace(u"QUOTED"_s, m_quotedName);
        filled.replace(u"LONG"_s, m_longName).replace(u"DIR"_s, QDir::currentPath());
        filled.replace(u"CUT"_s, u'\ufffd' + u"🚀"_s.repeated(149) + u'…' + u"🚀"_s.repeated(149));
        filled.replace(u"JUNK"_s, m_junk.path()).replace(u"SELF"_s, QString::number(m_self));
        return filled.replace(u"HIGH"_s, QString::number(m_self + (1LL << 32)));
    }

    static QJsonObject parsed(const QByteArray& json)
    {
        return QJsonDocument::fromJson(json).object();
    }

    static QByteArray compact(const QJsonObject& object)
    {
        return QJsonDocument(object).toJson(QJsonDocument::Compact);
    }

    /// The error, or the result as compact JSON.
    QString call(const QString& tool, QJsonObject args, const QByteArray& answer)
    {
        m_script.writes.clear();
        m_desktop.setAnswer({{answer + '\n'}});
        args.insert(u"reason"_s, m_name);
        const test::ToolReply reply = m_client.call(tool, args);
        return reply.isError ? QString(reply.text).remove(u"Tool '%1' failed: "_s.arg(tool))
                             : QString::fromUtf8(compact(reply.json()));
    }

    /// The platform writes that a request tells the user of.
    static QStringList writesNamedBy(const QJsonObject& request)
    {
        QString text;
        for (const auto key : {"action"_L1, "title"_L1, "summary"_L1, "detail"_L1})
            text += request[key].toString() + u'\n';
        // clang-format off
        static const QHash<QString, QString> patterns{ // V is a value that a summary quotes.
            {u"kill_process\n.*\n[^「]*「V」\\(PID (\\d+)\\)\n"_s, u"killProcess ①"_s},
            {u"(?<=\\n)(?!AI|  - ).* \\(PID (\\d+)\\)(?=\n)"_s, u"killProcess ①"_s},
            {u"_enabled\n(.)用启动项\n[^「]*「(V)」\\(.*\\)\n命令: .*\n注册表: HK(..)"_s, u"StartupService::setEnabled ③ ② ①"_s},
            {u"unlock_file\n.*\n[^「]*「V」\n路径: (.*)\n"_s, u"closeHandles ①"_s},
            {u"(start|stop)_service\n.*\n[^「]*「V」\\((V)\\)\n"_s, u"①Service ②"_s},
            {u"clean_junk\n(?:.*\n){3}(?:  - )?(崩溃转储文件|)(?: .*\n)?(?:  - )?(Chrome 缓存|)(?: .*\n)?(?:  - )?(pip 缓存|)"_s, u"moveToRecycleBin①②③"_s},
            {u"_start_type\n.*\n[^「]*「V」[^「]*「V」改为「(V)」\n服务名: (.*)\n"_s, u"setStartType ② ①"_s}};
        static const QHash<QString, QString> values{{u"禁"_s, u"0"_s}, {u"启"_s, u"1"_s}, {u"LM"_s, u"0"_s}, {u"CU"_s, u"1"_s}, {u"自动"_s, u"2"_s}, {u"自动(延迟)"_s, u"3"_s}, {u"手动"_s, u"4"_s}, {u"已禁用"_s, u"5"_s},
            {u"崩溃转储文件"_s, u" JUNK/CrashDumps/a"_s}, {u"Chrome 缓存"_s, u" JUNK/Google/Chrome/User Data/Default/Cache/f"_s}, {u"pip 缓存"_s, u" JUNK/pip/cache/%1"_s}};
        // clang-format on
        QStringList writes;
        for (auto pattern = patterns.begin(); pattern != patterns.end(); ++pattern) {
            const QRegularExpression parser(
                QString(pattern.key()).replace(u'V', u"[^「」\n]{0,300}"_s));
            for (const auto& match : parser.globalMatch(text)) {
                writes.append(pattern.value());
                for (int i = 1; i <= match.lastCapturedIndex(); ++i)
                    writes.last().replace(u"①②③"_s.at(i - 1),
                                          values.value(match.captured(i), match.captured(i)));
            }
        }
        return writes;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QDir::setCurrent(m_directory.path()));
        QVERIFY(QFile(m_name).open(QIODevice::WriteOnly));
        for (const char* name : {"HOME", "APPDATA", "SystemRoot", "ProgramData"})
            qputenv(name, m_junk.filePath(u"absent"_s).toUtf8());
        qputenv("LOCALAPPDATA", m_junk.path().toUtf8());
        test::makeTree(m_junk.path(),
                       u"CrashDumps/a/1=262144000|FontCache/e/|pip/cache/%1/b=1|pip/"
                       "cache/%1/c=3670015|Google/Chrome/User Data/Default/Cache/f=4"_s);
    }

    // clang-format off
    void init()
    {
        using State = ServiceState;
        using Type = ServiceStartType;
        m_desktop.takeReceived();
        fake::reset();
        m_script.processes.records = {{8, 0, {}, {}, 0, -1}, {5, 0, u"CHROME.exe"_s, {}, 0, -1}, {7, 1, m_name, u"/p\u2028%1"_s, 129394278, -1}, {7, 1, u"x"_s, {}, 1, -1}};
        m_script.connections.records = {{1, 0, {}, 90, {}, 80, 1, 4, {}}};
        for (const quint32 pid : {0U, 4U, quint32(m_self), 7U, 8U, 7U, 9U})
            m_script.connections.records.append({0, 0, {}, 80, {}, 0, 1, pid, pid == 8 ? QString() : m_name});
        m_script.startupItems.records = {{StartupSource::hkcu, {}, m_name, m_name, {}, true}, {StartupSource::hklm, {}, u"X%1"_s, {}, {}, false}, {StartupSource::hklm, {}, m_name, m_name, {}, false}};
        m_script.services.records = {{m_name, m_name, {}, m_name, State::Stopped, Type::Disabled}, {u"Two"_s, {}, {}, {}, State::Running, Type::Auto}, {u"three"_s, u"3"_s, {}, {}, State::StartPending, Type::AutoDelayed}, {u"four"_s, m_longName, {}, m_longName, State::StopPending, Type::AutoDelayed}};
        m_script.lockers.processes = {{11, m_name, {}, u"/e %1"_s}, {12, {}, {}, {}}};
        m_script.lockersOf = {{QDir::currentPath(), {true, {}, {}}}, {QFileInfo(QDir::currentPath()).path(), {false, u"探 %1"_s, {}}}};
        m_script.writeResult = {true, u"成 %1"_s};
        m_script.writeResults = {{u"killProcess 8"_s, {false, u"败 %1"_s}}};
    }

    // One row a case, however many there are.
    // NOLINTNEXTLINE(readability-function-size)
    void calls_data()
    {
        for (const char* column : {"tool", "args", "result", "request", "writes"})
            QTest::addColumn<QString>(column);
        // One call for each of the tools and arguments between "|". A request is its title, summary
        // and detail; without one nobody is asked and nothing is written.
        const auto row = [this](const char* tools, const char* args, const char* result, const char* request = "", const char* writes = "") {
            for (const QString& tool : filledIn(tools).split(u'|')) {
                for (const QString& arg : filledIn(args).split(u'|'))
                    QTest::newRow(qPrintable(tool + arg)) << tool << arg << filledIn(result) << filledIn(request) << filledIn(writes).replace(u"\\n"_s, u"\n"_s);
            }
        };
        row("kill_process", "|`pid`:0|`pid`:-5|`pid`:`abc`|`pid`:null|`pid`:-4294967289|`pid`:1e300", "参数 pid 缺失或非法 — 必须是正整数");
        row("kill_process", "`pid`:4|`pid`:4294967296|`pid`:4294967300", "拒绝结束系统关键进程 (System Idle Process / System)");
        row("kill_process", "`pid`:SELF|`pid`:HIGH", "拒绝结束 Korvane 自身进程");
        row("kill_process", "`pid`:4294967295", "找不到 PID 4294967295 对应的进程 — 可能已退出");
        row("kill_process", "`pid`:7|`pid`:`7`|`pid`:7.4|`pid`:4294967303", "{`killed`:true,`pid`:7,`process_name`:`NAME`,`message`:`成 %1`}", "结束进程|AI 请求强制结束进程「QUOTED」(PID 7)|可执行路径: /p�%1\n内存占用: 123.4 MB", "killProcess 7");
        row("kill_process", "`pid`:8", "败 %1", "结束进程|AI 请求强制结束进程「」(PID 8)|可执行路径: (未知)", "killProcess 8");
        row("kill_by_port", "|`port`:0|`port`:65536|`port`:`x`|`port`:4294967376", "参数 port 缺失或非法 — 必须是 1-65535 的整数");
        row("kill_by_port", "`port`:90", "端口 90 未发现可结束的占用进程");
        row("kill_by_port", "`port`:`80`", "{`port`:80,`killed_count`:2,`failed_count`:1,`killed`:[{`pid`:7,`message`:`成 %1`},{`pid`:9,`message`:`成 %1`}],`failed`:[{`pid`:8,`message`:`败 %1`}]}", "按端口结束进程|AI 请求结束占用端口 80 的 3 个进程|SHOWN (PID 7)\n未知 (PID 8)\nSHOWN (PID 9)", "killProcess 7|killProcess 8|killProcess 9");

        row("set_startup_item_enabled", "`enabled`:1|`name`:` \\t`,`enabled`:1|`name`:5", "参数 name 不能为空");
        row("set_startup_item_enabled", "`name`:`x`|`name`:`x`,`enabled`:1|`name`:`x`,`enabled`:`false`|`name`:`x`,`enabled`:null", "参数 enabled 必须是布尔值");
        row("set_startup_item_enabled", "`name`:`x`,`enabled`:true|`name`:`x`,`enabled`:true,`source`:` `", "参数 source 必须是 `hklm` 或 `hkcu`");
        row("set_startup_item_enabled", "`name`:`x`,`enabled`:true,`source`:` HKcr%1 `", "参数 source 非法 (`HKcr%1`),必须是 `hklm` 或 `hkcu`");
        row("set_startup_item_enabled", "`name`:` X%1 `,`enabled`:true,`source`:`用户`", "找不到启动项 source=hkcu name=X%1");
        row("set_startup_item_enabled", "`name`:`x%1`,`enabled`:true,`source`:`系统`", "找不到启动项 source=hklm name=x%1");
        row("set_startup_item_enabled", "`name`:`NAME`,`enabled`:true,`source`:` HKCU `", "{`changed`:false,`source`:`hkcu`,`name`:`NAME`,`enabled`:true,`note`:`启动项已是目标状态,无需修改`}");
        row("set_startup_item_enabled", "`name`:` NAME `,`enabled`:true,`source`:`HKLM_Run`", "{`changed`:true,`source`:`hklm`,`name`:`NAME`,`enabled`:true,`message`:`成 %1`}", "启用启动项|AI 请求启用启动项「QUOTED」(系统)|命令: SHOWN\n注册表: HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Run", "StartupService::setEnabled 0 NAME 1");
        row("set_startup_item_enabled", "`name`:`NAME`,`enabled`:false,`source`:`hkcu_run`", "{`changed`:true,`source`:`hkcu`,`name`:`NAME`,`enabled`:false,`message`:`成 %1`}", "禁用启动项|AI 请求禁用启动项「QUOTED」(用户)|命令: SHOWN\n注册表: HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run", "StartupService::setEnabled 1 NAME 0");

        row("unlock_file", "|`path`:` `", "参数 path 不能为空");
        row("unlock_file", "`path`:` /absent/%1 `", "路径不存在: /absent/%1");
        row("unlock_file", "`path`:`.`", "{`unlocked`:true,`path`:`DIR`,`note`:`该文件当前未被任何进程占用,无需解锁`}");
        row("unlock_file", "`path`:`..`", "探 %1");
        row("unlock_file", "`path`:` NAME `", "{`unlocked`:true,`path`:`DIR/NAME`,`closed_processes`:[{`pid`:11,`app_name`:`NAME`,`exe_path`:`/e %1`},{`pid`:12,`app_name`:``,`exe_path`:``}],`message`:`成 %1`}", "解锁文件|AI 请求解锁文件「QUOTED」|路径: DIR/SHOWN\n将关闭以下 2 个占用进程的句柄:\n  - SHOWN (PID 11)\n  - PID 12", "closeHandles DIR/NAME");
        row("unlock_file", "`path`:`/usr/`", "{`unlocked`:true,`path`:`/usr/`,`closed_processes`:[{`pid`:11,`app_name`:`NAME`,`exe_path`:`/e %1`},{`pid`:12,`app_name`:``,`exe_path`:``}],`message`:`成 %1`}", "解锁文件|AI 请求解锁文件「usr」|路径: /usr/\n将关闭以下 2 个占用进程的句柄:\n  - SHOWN (PID 11)\n  - PID 12", "closeHandles /usr/");

        row("start_service|stop_service|set_service_start_type", "`name`:` `,`start_type`:`x`", "参数 name 不能为空");
        row("set_service_start_type", "`name`:`absent`,`start_type`:` Boot%1 `", "参数 start_type 非法 (`Boot%1`),必须是 auto/auto_delayed/manual/disabled");
        row("start_service|stop_service|set_service_start_type", "`name`:` tw%1 `,`start_type`:`auto`", "找不到服务: tw%1");
        row("start_service", "`name`:` tWO `", "{`changed`:false,`name`:`tWO`,`note`:`服务已在运行`}");
        row("stop_service", "`name`:`NAME`", "{`changed`:false,`name`:`NAME`,`note`:`服务已停止`}");
        row("set_service_start_type", "`name`:`NAME`,`start_type`:` Disabled `", "{`changed`:false,`name`:`NAME`,`start_type`:`Disabled`,`note`:`启动类型已是目标值`}");
        row("start_service", "`name`:`NAME`", "{`changed`:true,`name`:`NAME`,`message`:`成 %1`}", "启动服务|AI 请求启动服务「QUOTED」(QUOTED)|二进制路径: SHOWN\n当前状态: 已停止\n启动类型: 已禁用", "startService NAME");
        row("start_service", "`name`:`THREE`", "{`changed`:true,`name`:`THREE`,`message`:`成 %1`}", "启动服务|AI 请求启动服务「3」(THREE)|二进制路径: \n当前状态: 启动中…\n启动类型: 自动(延迟)", "startService THREE");
        row("stop_service", "`name`:` tWO`", "{`changed`:true,`name`:`tWO`,`message`:`成 %1`}", "停止服务|AI 请求停止服务「」(tWO)|二进制路径: \n当前状态: 运行中\n依赖此服务的功能可能失效。", "stopService tWO");
        row("stop_service", "`name`:`four`", "{`changed`:true,`name`:`four`,`message`:`成 %1`}", "停止服务|AI 请求停止服务「CUT」(four)|二进制路径: LONG\n当前状态: 停止中…\n依赖此服务的功能可能失效。", "stopService four");
        for (const QString& spelling : u"AUTO=自动=2|auto_Delayed=自动(延迟)=3|Auto-delayed=自动(延迟)=3|delayed=自动(延迟)=3|Manual=手动=4|demand=手动=4"_s.split(u'|')) {
            const QStringList words = spelling.split(u'=');
            row("set_service_start_type", qUtf8Printable(u"`name`:`NAME`,`start_type`:` %1 `"_s.arg(words[0])), qUtf8Printable(u"{`changed`:true,`name`:`NAME`,`start_type`:`%1`,`message`:`成 %2`}"_s.arg(words[0], u"%1"_s)),
                qUtf8Printable(u"设服务启动类型|AI 请求把服务「QUOTED」启动类型从「已禁用」改为「%1」|服务名: SHOWN\n二进制路径: SHOWN\n(下次启动生效)"_s.arg(words[1])), qUtf8Printable(u"setStartType NAME %1"_s.arg(words[2])));
        }

        row("clean_junk", "|`category_ids`:[]|`category_ids`:`pip_cache`|`category_ids`:{`pip_cache`:1}", "参数 category_ids 不能为空 — 先用 scan_junk 拿 category_id");
        row("clean_junk", "`category_ids`:[` `,5]|`category_ids`:[`absent`,`font_cache`,`PIP_cache`]", "{`cleaned`:false,`skipped`:[],`note`:`匹配的分类当前无可清理内容 (可能已清理过, 或 category_id 无效 — 用 scan_junk 确认有效 id)`}");
        const char* const chrome = "{`category_id`:`chrome_cache`,`reason`:`进程运行中, 请先关闭: chrome.exe`}";
        row("clean_junk", "`category_ids`:[`font_cache`,`chrome_cache`]", qUtf8Printable(u"{`cleaned`:false,`skipped`:[%1],`note`:`所有匹配分类都因进程运行中被跳过, 请先关闭对应程序再试`}"_s.arg(QString::fromUtf8(chrome))));
        const char* const pip = "{`category_id`:`pip_cache`,`category_name`:`pip 缓存`,`size_bytes`:3670016,`file_count`:2}";
        row("clean_junk", "`category_ids`:[` pip_cache `,`pip_cache `]", qUtf8Printable(u"{`cleaned`:true,`freed_bytes`:3670016,`freed_mb`:3.5,`file_count`:2,`categories`:[%1],`skipped`:[],`message`:`成 %2`}"_s.arg(QString::fromUtf8(pip), u"%1"_s)),
            "清理磁盘垃圾|AI 请求清理 1 类垃圾 (共 2 个文件, 约 3.5 MB) 到回收站|将移到回收站 (可从回收站恢复) 的分类:\n  - pip 缓存 (3.5 MB, 2 项)", "moveToRecycleBin JUNK/pip/cache/%1");
        row("clean_junk", "`category_ids`:[`pip_cache`,null,`chrome_cache`,`crash_dumps`,`x`]", qUtf8Printable(u"{`cleaned`:true,`freed_bytes`:265814016,`freed_mb`:253.5,`file_count`:3,`categories`:[{`category_id`:`crash_dumps`,`category_name`:`崩溃转储文件`,`size_bytes`:262144000,`file_count`:1},%1],`skipped`:[%2],`message`:`成 %3`}"_s.arg(QString::fromUtf8(pip), QString::fromUtf8(chrome), u"%1"_s)),
            "清理磁盘垃圾|AI 请求清理 2 类垃圾 (共 3 个文件, 约 253.5 MB) 到回收站|将移到回收站 (可从回收站恢复) 的分类:\n  - 崩溃转储文件 (250 MB, 1 项)\n  - pip 缓存 (3.5 MB, 2 项)", "moveToRecycleBin JUNK/CrashDumps/a JUNK/pip/cache/%1");
    }
    // clang-format on
    void calls()
    {
        QFETCH(QString, tool);
        QFETCH(QString, args);
        QFETCH(QString, result);
        QFETCH(QString, request);
        QByteArrayList wire;
        if (!request.isEmpty()) {
            const QStringList texts = request.split(u'|') << m_name << tool;
            QJsonObject object;
            for (const auto key : {"title"_L1, "summary"_L1, "detail"_L1, "reason"_L1, "action"_L1})
                object.insert(key, texts.at(object.size()));
            wire = {compact(object) + '\n'};
        }
        const auto ask = [&](const QByteArray& answer) {
            return call(tool, parsed('{' + args.toUtf8() + '}'), answer);
        };
        if (result.startsWith(u'{'))
            result = QString::fromUtf8(compact(parsed(result.toUtf8())));
        QCOMPARE(ask("{\"granted\":true,\"message\":\"x\"}"), result);
        QCOMPARE(m_desktop.takeReceived(), wire);
        QTEST(m_script.writes.join(u'|'), "writes");
        if (wire.isEmpty())
            return;
        QCOMPARE(ask("{\"granted\":false,\"message\":\"不 %1\"}"), u"不 %1"_s);
        QVERIFY(m_script.writes.isEmpty());
        QCOMPARE(ask("{}"), u"用户未授权此操作"_s);
        QVERIFY(m_script.writes.isEmpty());
        QCOMPARE(m_desktop.takeReceived(), wire + wire);
        m_script.writeResult = {false, u"败 %1"_s};
        if (tool != u"kill_by_port")
            QCOMPARE(ask("{\"granted\":true}"), u"败 %1"_s);
    }

    void noWriteWithoutItsGrant()
    {
        // clang-format off
        const QJsonObject values = parsed(filledIn("{`pid`:[7,8,`7`,7.4,4294967303,0,4,SELF,HIGH,null,`x`,99],`port`:[80,`80`,80.2,90,0,65536],`enabled`:[true,true,false,false,1],`source`:[`hklm`,` HKCU `,`用户`,`系统`,`hkcr`],"
            "`path`:[`NAME`,`.`,`DIR`,``,`/absent`],`name`:[`NAME`,`NAME`,`NAME`,`TWO`,` three`,`four`,` `,`absent`,5],`start_type`:[`auto`,`Delayed`,`manual`,`disabled`,`boot`],`category_ids`:[[`pip_cache`],[`pip_cache`,`chrome_cache`],[`chrome_cache`],[`crash_dumps`,5,` pip_cache`],[`absent`],[],`pip_cache`]}").toUtf8());
        const QStringList tools = u"kill_process|kill_by_port|set_startup_item_enabled|unlock_file|start_service|stop_service|set_service_start_type|clean_junk"_s.split(u'|');
        const QByteArrayList answers = QByteArray("{`granted`:true}\n|{`granted`:true,`message`:`x`}\n{`granted`:false}\n|{`granted`:false,`message`:`true`}\n|{`granted`:1}\n{`granted`:true}\n|{`granted`:`true`}\n|[true]\n|\n|{`granted`:true}|granted\n").replace('`', '"').split('|');
        // clang-format on
        QHash<QString, int> granted;
        QRandomGenerator random(1);
        for (int round = 0; round < 8000; ++round) {
            QJsonObject args;
            for (auto value = values.begin(); value != values.end(); ++value)
                args.insert(value.key(),
                            value->toArray().at(random.bounded(value->toArray().size())));
            for (ServiceItem& service : m_script.services.records)
                service.state = ServiceState(random.bounded(8));
            m_script.processes.records[1].name =
                random.bounded(2) > 0 ? u"chrome.exe"_s : QString();
            const qsizetype answer = random.bounded(answers.size());
            m_desktop.setAnswer({{answers.at(answer)}, true});
            m_script.peerMayAnswer = [mayAnswer = random.bounded(8) > 0] { return mayAnswer; };
            m_script.writes.clear();
            const QString& tool = tools.at(round % tools.size());
            m_client.call(tool, args);
            static const QStringList summed{u"set_startup_item_enabled"_s, u"start_service"_s,
                                            u"stop_service"_s};
            const QString& name = summed.contains(tool) ? m_quotedName : m_shownName;
            m_script.writes.replaceInStrings(m_name, name)
                .replaceInStrings(m_junk.path(), u"JUNK"_s);
            QByteArrayList requests = m_desktop.takeReceived();
            requests.removeAll(QByteArray()); // A stranger is told nothing.
            QVERIFY(requests.size() <= 1);
            const bool isGranted = answer < 2 && !requests.isEmpty();
            QCOMPARE(m_script.writes,
                     isGranted ? writesNamedBy(parsed(requests[0])) : QStringList());
            granted[tool] += int(isGranted);
        }
        for (const QString& tool : tools)
            QVERIFY2(granted[tool] > 10, qPrintable(tool));
    }
};

QTEST_GUILESS_MAIN(WriteToolsTest)
#include "tst_write_tools.moc"
