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
    const QChar m_control = test::hasPosixFiles() ? u'\n' : u'\u0085'; ///< Allowed in names.
    const QString m_name = u'a' + m_control + u"「%1」\u202e\u200b\u0085\ufe0f\U000e0041  %2"_s;
    const QString m_shownName = u"a\ufffd「%1」\ufffd\ufffd\ufffd\ufffd\ufffd \ufffd%2"_s;
    const QString m_quotedName = u"a\ufffd\ufffd%1\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd \ufffd%2"_s;
    const QString m_longName = u'」' + u"🚀"_s.repeated(400);

    /// NAME is the name as JSON has it, SHOWN what a detail has in its place, QUOTED what a summary
    /// has; the rest as below.
    QString filledIn(const char* text) const
    {
        QString values = QString::fromUtf8(R"(
            CLOSED=`closed_processes`:[{`pid`:11,`app_name`:`NAME`,`exe_path`:`/e %1`},LAST]
            LAST={`pid`:12,`app_name`:``,`exe_path`:``}
            CHANGED=`changed`:true,DONE
            DONE=`message`:`成 %1`
            CHROME={`category_id`:`chrome_cache`,`reason`:`进程运行中, 请先关闭: chrome.exe`}
            PIPS={PIPID,`category_name`:`pip 缓存`,`size_bytes`:3670016,`file_count`:2}
            PIPID=`category_id`:`pip_cache`
            RUN=\Software\Microsoft\Windows\CurrentVersion\Run)");
        values += u"\nNAME="_s + QString(m_name).replace(u'\n', u"\\n"_s) + u"\nSHOWN="_s +
                  m_shownName + u"\nQUOTED="_s + m_quotedName + u"\nLONG="_s + m_longName +
                  u"\nCUT=\ufffd"_s + u"🚀"_s.repeated(149) + u'…' + u"🚀"_s.repeated(149) +
                  u"\nDIR="_s + QDir::currentPath() + u"\nJUNK="_s + m_junk.path() + u"\nSELF="_s +
                  QString::number(m_self) + u"\nHIGH="_s + QString::number(m_self + (1LL << 32));
        QString filled = QString::fromUtf8(text);
        for (const QString& value : values.split(u'\n', Qt::SkipEmptyParts))
            filled.replace(value.section(u'=', 0, 0).trimmed(), value.section(u'=', 1));
        return filled;
    }

    /// The error, or the result.
    QString call(const QString& tool, QJsonObject args, const QByteArray& answer)
    {
        m_script.writes.clear();
        m_desktop.setAnswer({{answer + '\n'}});
        args.insert(u"reason"_s, m_name);
        const test::ToolReply reply = m_client.call(tool, args);
        return reply.isError ? QString(reply.text).remove(u"Tool '"_s + tool + u"' failed: "_s)
                             : test::text(reply.json());
    }

    /// What tells of a path, with slashes whatever the system's separators are.
    static QString slashed(const QString& tool, QString text)
    {
        if (tool == u"unlock_file" && !test::hasPosixFiles())
            text.replace(text.startsWith(u'{') ? u"\\\\"_s : u"\\"_s, u"/"_s);
        return text;
    }

    QByteArrayList received(const QString& tool)
    {
        QByteArrayList lines;
        for (const QByteArray& line : m_desktop.takeReceived())
            lines.append(slashed(tool, QString::fromUtf8(line)).toUtf8());
        return lines;
    }

    /// Asks a desktop program that grants, and others that do not.
    void check(const QString& tool, const QString& args, QString result, const QString& request,
               const QString& writes)
    {
        QByteArrayList wire;
        if (!request.isEmpty()) {
            const QStringList texts = request.split(u'|') << m_name << tool;
            QJsonObject object;
            for (const auto key : {"title"_L1, "summary"_L1, "detail"_L1, "reason"_L1, "action"_L1})
                object.insert(key, texts.at(object.size()));
            wire = {QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n'};
        }
        const auto ask = [&](const QByteArray& answer) {
            return call(tool, test::json(u'{' + args + u'}'), answer);
        };
        if (result.startsWith(u'{'))
            result = test::text(test::json(result));
        QCOMPARE(slashed(tool, ask("{\"granted\":true,\"message\":\"x\"}")), result);
        QCOMPARE(received(tool), wire);
        QCOMPARE(slashed(tool, m_script.writes.join(u'|')), writes);
        if (wire.isEmpty())
            return;
        QCOMPARE(ask("{\"granted\":false,\"message\":\"不 %1\"}"), u"不 %1"_s);
        QVERIFY(m_script.writes.isEmpty());
        QCOMPARE(ask("{}"), u"用户未授权此操作"_s);
        QVERIFY(m_script.writes.isEmpty());
        QCOMPARE(received(tool), wire + wire);
        m_script.writeResult = {false, u"败 %1"_s};
        if (tool != u"kill_by_port")
            QCOMPARE(ask("{\"granted\":true}"), u"败 %1"_s);
    }

    /// Whether there are writes, and a request tells the user whom or what each is about; in which
    /// words, calls() sees.
    static bool tellsOf(const QStringList& writes, const QJsonObject& request)
    {
        static const QRegularExpression ending(u"^killProcess (.*)"_s);
        static const QRegularExpression others(u"^(\\w|::)+ ([01] )?(.*?)( \\d)?$"_s);
        QString told;
        for (const auto key : {"title"_L1, "summary"_L1, "detail"_L1})
            told += request[key].toString() + u'\n';
        bool tellsAll = !writes.isEmpty();
        for (QString write : writes) {
            for (const auto& [path, category] :
                 {std::pair(u"JUNK/CrashDumps/"_s, u"崩溃转储文件"_s),
                  std::pair(u"JUNK/pip/"_s, u"pip 缓存"_s),
                  std::pair(u"JUNK/Google/"_s, u"Chrome 缓存"_s)})
                tellsAll = tellsAll && write.contains(path) == told.contains(category);
            write.replace(ending, u"end (PID \\1)"_s).replace(others, u"\\3"_s);
            tellsAll = tellsAll && (write.startsWith(u"JUNK") || told.contains(write));
        }
        return tellsAll;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(QDir::setCurrent(m_directory.path()));
        QVERIFY(QDir().mkdir(m_name));
        for (const char* name : {"HOME", "APPDATA", "SystemRoot", "ProgramData"})
            qputenv(name, m_junk.filePath(u"absent"_s).toUtf8());
        qputenv("LOCALAPPDATA", m_junk.path().toUtf8());
        test::makeTree(m_junk.path(),
                       u"CrashDumps/a/1=262144000|FontCache/e/|pip/cache/%1/b=1|pip/"
                       "cache/%1/c=3670015|Google/Chrome/User Data/Default/Cache/f=4"_s);
    }

    void init()
    {
        using enum ServiceState;
        using Type = ServiceStartType;
        m_desktop.takeReceived();
        fake::reset();
        m_script.processes.records = {{8, 0, {}, {}, 0, -1},
                                      {5, 0, u"CHROME.exe"_s, {}, 0, -1},
                                      {7, 1, m_name, u"/p\u2028%1"_s, 129394278, -1},
                                      {7, 1, u"x"_s, {}, 1, -1}};
        m_script.connections.records = {{1, 0, {}, 90, {}, 80, 1, 4, {}}};
        for (const quint32 pid : {0U, 4U, quint32(m_self), 7U, 8U, 7U, 9U}) {
            m_script.connections.records.append(
                {0, 0, {}, 80, {}, 0, 1, pid, pid == 8 ? QString() : m_name});
        }
        m_script.startupItems.records = {{StartupSource::hkcu, {}, m_name, m_name, {}, true},
                                         {StartupSource::hklm, {}, u"X%1"_s, {}, {}, false},
                                         {StartupSource::hklm, {}, m_name, m_name, {}, false}};
        m_script.services.records = {
            {m_name, m_name, {}, m_name, Stopped, Type::Disabled},
            {u"Two"_s, {}, {}, {}, Running, Type::Auto},
            {u"three"_s, u"3"_s, {}, {}, StartPending, Type::AutoDelayed},
            {u"four"_s, m_longName, {}, m_longName, StopPending, Type::AutoDelayed}};
        m_script.lockers.processes = {{11, m_name, {}, u"/e %1"_s}, {12, {}, {}, {}}};
        const QString here = QDir::toNativeSeparators(QDir::currentPath());
        m_script.lockersOf = {{here, {true, {}, {}}},
                              {here.section(QDir::separator(), 0, -2), {false, u"探 %1"_s, {}}}};
        m_script.writeResult = {true, u"成 %1"_s};
        m_script.writeResults = {{u"killProcess 8"_s, {false, u"败 %1"_s}}};
    }

    // A case is "TOOLS: ARGUMENTS => RESULT", with one call for each of the tools and arguments
    // between "|". Where " => REQUEST => WRITES" follow, the user is asked: title, summary, detail.
    // One that does not fit a line goes on in the next.
    // One row a call, however many there are.
    // NOLINTNEXTLINE(readability-function-size)
    void calls()
    {
        QString table = filledIn(R"(
kill_process: |`pid`:0|`pid`:-4294967289|`pid`:1e300 => 参数 pid 缺失或非法 — 必须是正整数
kill_process: `pid`:4|`pid`:4294967296|`pid`:4294967300
  => 拒绝结束系统关键进程 (System Idle Process / System)
kill_process: `pid`:SELF|`pid`:HIGH => 拒绝结束 Korvane 自身进程
kill_process: `pid`:4294967295 => 找不到 PID 4294967295 对应的进程 — 可能已退出
kill_process: `pid`:7|`pid`:`7`|`pid`:7.4|`pid`:4294967303
  => {`killed`:true,`pid`:7,`process_name`:`NAME`,DONE}
  => 结束进程|AI 请求强制结束进程「QUOTED」(PID 7)|可执行路径: /p�%1\n内存占用: 123.4 MB => killProcess 7
kill_process: `pid`:8 => 败 %1
  => 结束进程|AI 请求强制结束进程「」(PID 8)|可执行路径: (未知) => killProcess 8
kill_by_port: |`port`:4294967376 => 参数 port 缺失或非法 — 必须是 1-65535 的整数
kill_by_port: `port`:90 => 端口 90 未发现可结束的占用进程
kill_by_port: `port`:`80`
  => {`port`:80,`killed_count`:2,`failed_count`:1,`killed`:[{`pid`:7,DONE},{`pid`:9,DONE}],
  `failed`:[{`pid`:8,`message`:`败 %1`}]}
  => 按端口结束进程|AI 请求结束占用端口 80 的 3 个进程|SHOWN (PID 7)\n未知 (PID 8)\nSHOWN (PID 9)
  => killProcess 7|killProcess 8|killProcess 9
set_startup_item_enabled: `enabled`:1|`name`:` \t`,`enabled`:1|`name`:5 => 参数 name 不能为空
set_startup_item_enabled: `name`:`x`|`name`:`x`,`enabled`:1|`name`:`x`,`enabled`:`false`
  => 参数 enabled 必须是布尔值
set_startup_item_enabled: `name`:`x`,`enabled`:true|`name`:`x`,`enabled`:true,`source`:` `
  => 参数 source 必须是 "hklm" 或 "hkcu"
set_startup_item_enabled: `name`:`x`,`enabled`:true,`source`:` HKcr%1 `
  => 参数 source 非法 ("HKcr%1"),必须是 "hklm" 或 "hkcu"
set_startup_item_enabled: `name`:` X%1 `,`enabled`:true,`source`:`用户`
  => 找不到启动项 source=hkcu name=X%1
set_startup_item_enabled: `name`:`x%1`,`enabled`:true,`source`:`系统`
  => 找不到启动项 source=hklm name=x%1
set_startup_item_enabled: `name`:`NAME`,`enabled`:true,`source`:` HKCU `
  => {`changed`:false,`source`:`hkcu`,`name`:`NAME`,`enabled`:true,
  `note`:`启动项已是目标状态,无需修改`}
set_startup_item_enabled: `name`:` NAME `,`enabled`:true,`source`:`HKLM_Run`
  => {CHANGED,`source`:`hklm`,`name`:`NAME`,`enabled`:true}
  => 启用启动项|AI 请求启用启动项「QUOTED」(系统)|命令: SHOWN\n注册表: HKLMRUN
  => StartupService::setEnabled 0 NAME 1
set_startup_item_enabled: `name`:`NAME`,`enabled`:false,`source`:`hkcu_run`
  => {CHANGED,`source`:`hkcu`,`name`:`NAME`,`enabled`:false}
  => 禁用启动项|AI 请求禁用启动项「QUOTED」(用户)|命令: SHOWN\n注册表: HKCURUN
  => StartupService::setEnabled 1 NAME 0
unlock_file: |`path`:` ` => 参数 path 不能为空
unlock_file: `path`:` /absent/%1 ` => 路径不存在: /absent/%1
unlock_file: `path`:`.` => {`unlocked`:true,`path`:`DIR`,`note`:`该文件当前未被任何进程占用,无需解锁`}
unlock_file: `path`:`..` => 探 %1
unlock_file: `path`:` DIR/NAME/ ` => {`unlocked`:true,`path`:`DIR/NAME/`,CLOSED,DONE}
  => 解锁文件|AI 请求解锁文件「QUOTED」|路径: DIR/SHOWN/\n将关闭以下 2 个占用进程的句柄:\n
  - SHOWN (PID 11)\n  - PID 12 => closeHandles DIR/NAME/
start_service|stop_service|set_service_start_type: `name`:` `,`start_type`:`x` => 参数 name 不能为空
set_service_start_type: `name`:`absent`,`start_type`:` Boot%1 `
  => 参数 start_type 非法 ("Boot%1"),必须是 auto/auto_delayed/manual/disabled
start_service|stop_service|set_service_start_type: `name`:` tw%1 `,`start_type`:`auto`
  => 找不到服务: tw%1
start_service: `name`:` tWO ` => {`changed`:false,`name`:`tWO`,`note`:`服务已在运行`}
stop_service: `name`:`NAME` => {`changed`:false,`name`:`NAME`,`note`:`服务已停止`}
set_service_start_type: `name`:`NAME`,`start_type`:` Disabled `
  => {`changed`:false,`name`:`NAME`,`start_type`:`Disabled`,`note`:`启动类型已是目标值`}
start_service: `name`:`NAME` => {CHANGED,`name`:`NAME`}
  => 启动服务|AI 请求启动服务「QUOTED」(QUOTED)|二进制路径: SHOWN\n当前状态: 已停止\n启动类型: 已禁用
  => startService NAME
stop_service: `name`:`four` => {CHANGED,`name`:`four`}
  => 停止服务|AI 请求停止服务「CUT」(four)|二进制路径: LONG\n当前状态: 停止中…\n依赖此服务的功能可能失效。
  => stopService four
clean_junk: |`category_ids`:[]|`category_ids`:`pip_cache`|`category_ids`:{`pip_cache`:1}
  => 参数 category_ids 不能为空 — 先用 scan_junk 拿 category_id
clean_junk: `category_ids`:[` `,5]|`category_ids`:[`absent`,`font_cache`,`PIP_cache`]
  => {`cleaned`:false,`skipped`:[],
  `note`:`匹配的分类当前无可清理内容 (可能已清理过, 或 category_id 无效 — 用 scan_junk 确认有效 id)`}
clean_junk: `category_ids`:[`font_cache`,`chrome_cache`]
  => {`cleaned`:false,`skipped`:[CHROME],`note`:`所有匹配分类都因进程运行中被跳过, 请先关闭对应程序再试`}
clean_junk: `category_ids`:[` pip_cache `,null,`chrome_cache`,`pip_cache `,`crash_dumps`,`x`]
  => {`cleaned`:true,`freed_bytes`:265814016,`freed_mb`:253.5,`file_count`:3,
  `categories`:[{`category_id`:`crash_dumps`,`category_name`:`崩溃转储文件`,
  `size_bytes`:262144000,`file_count`:1},PIPS],`skipped`:[CHROME],DONE}
  => 清理磁盘垃圾|AI 请求清理 2 类垃圾 (共 3 个文件, 约 253.5 MB) 到回收站|
  将移到回收站 (可从回收站恢复) 的分类:\n  - 崩溃转储文件 (250 MB, 1 项)\n  - pip 缓存 (3.5 MB, 2 项)
  => moveToRecycleBin JUNK/CrashDumps/a JUNK/pip/cache/%1
)");
        for (const QString& spelling :
             u"AUTO=自动=2|auto_Delayed=自动(延迟)=3|Auto-delayed=自动(延迟)=3|"
             "delayed=自动(延迟)=3|Manual=手动=4|demand=手动=4"_s.split(u'|')) {
            const QStringList words = spelling.split(u'=');
            table += filledIn(R"(
set_service_start_type: `name`:`NAME`,`start_type`:` GIVEN ` => {CHANGED,`name`:`NAME`,
  `start_type`:`GIVEN`} => 设服务启动类型|AI 请求把服务「QUOTED」启动类型从「已禁用」改为「LABEL」|
  服务名: SHOWN\n二进制路径: SHOWN\n(下次启动生效) => setStartType NAME NUMBER)");
            table.replace(u"GIVEN"_s, words[0]).replace(u"LABEL"_s, words[1]);
            table.replace(u"NUMBER"_s, words[2]);
        }
        table.replace(u"\n  => "_s, u" => "_s).replace(u"\\n\n"_s, u"\\n"_s);
        table.replace(QRegularExpression(u"\n  (?!- )"_s), {});
        for (const QString& row : table.split(u'\n', Qt::SkipEmptyParts)) {
            const QStringList fields = row.section(u": "_s, 1).split(u" => "_s);
            for (const QString& tool : row.section(u": "_s, 0, 0).split(u'|')) {
                for (const QString& arg : fields[0].split(u'|')) {
                    init();
                    check(tool, arg, fields[1], fields.value(2).replace(u"\\n"_s, u"\n"_s),
                          fields.value(3).replace(u"\\n"_s, u"\n"_s));
                    if (QTest::currentTestFailed())
                        QFAIL(qPrintable(tool + arg));
                }
            }
        }
    }

    void noWriteWithoutItsGrant()
    {
        const QJsonObject values = test::json(filledIn(R"({
            `pid`:[7,8,`7`,7.4,4294967303,0,4,SELF,HIGH,null,`x`,99],
            `port`:[80,`80`,80.2,90,0,65536],
            `enabled`:[true,true,false,false,1],
            `source`:[`hklm`,` HKCU `,`用户`,`系统`,`hkcr`],
            `path`:[`NAME`,`.`,`DIR`,``,`/absent`],
            `name`:[`NAME`,`NAME`,`NAME`,`TWO`,` three`,`four`,` `,`absent`,5],
            `start_type`:[`auto`,`Delayed`,`manual`,`disabled`,`boot`],
            `category_ids`:[[`pip_cache`],[`pip_cache`,`chrome_cache`],[`chrome_cache`],
                [`crash_dumps`,5,` pip_cache`],[`absent`],[],`pip_cache`]})"));
        const QStringList tools =
            u"kill_process|kill_by_port|set_startup_item_enabled|unlock_file|start_service|"
            "stop_service|set_service_start_type|clean_junk"_s.split(u'|');
        const QByteArrayList answers = // The first two grant.
            QByteArray("{`granted`:true}\n|{`granted`:true,`message`:`x`}\n{`granted`:false}\n|"
                       "{`granted`:false,`message`:`true`}\n|{`granted`:1}\n{`granted`:true}\n|"
                       "{`granted`:`true`}\n|[true]\n|\n|{`granted`:true}|granted\n")
                .replace('`', '"')
                .split('|');
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
            QVERIFY2(isGranted
                         ? tellsOf(m_script.writes, QJsonDocument::fromJson(requests[0]).object())
                         : m_script.writes.isEmpty(),
                     qPrintable(m_script.writes.join(u'|')));
            granted[tool] += int(isGranted);
        }
        for (const QString& tool : tools)
            QVERIFY2(granted[tool] > 10, qPrintable(tool));
    }
};

QTEST_GUILESS_MAIN(WriteToolsTest)
#include "tst_write_tools.moc"
