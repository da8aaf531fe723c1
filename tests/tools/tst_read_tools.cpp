// Tests of the tools that only read, but for those that search disks, as a client sees them, on
// scripted records; and of how tools read their arguments.
#include "core/process_tree.h"
#include "core/processes.h"
#include "core/signatures.h"
#include "fake/fake_platform.h"
#include "support/mcp_client.h"
#include "tools/tool_support.h"

#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <functional>

using namespace korvane;
using namespace Qt::StringLiterals;

class ReadToolsTest : public QObject
{
    Q_OBJECT

    test::Client m_client;
    fake::Platform& m_script = fake::platform();
    QList<ProcessSnapshot>& m_processes = m_script.processes.records;
    QTemporaryDir m_directory;

    test::ToolReply tree() { return m_client.call(u"get_process_tree"_s); }
    test::ToolReply list() { return m_client.call(u"list_processes"_s); }

    /// Checks a table of arguments named `key`, and what the answers then have under `names`.
    void checkArguments(const QString& tool, const QString& key, const QString& names,
                        const QString& refusal, const char* table)
    {
        for (const QString& row : test::rows(table)) {
            const QString given = row.section(u" => "_s, 0, 0);
            const auto reply = m_client.call(tool, test::json(u"{`%1`:%2}"_s.arg(key, given)));
            const QString error = QString(reply.text).replace(refusal, u"REFUSED"_s);
            QCOMPARE(given + u" => "_s +
                         (reply.isError ? error : test::values(reply.json(), names)),
                     row);
        }
    }

    /// The text of the tree made the plain way: by recursion, node by node.
    QByteArray plainTree() const
    {
        QHash<quint32, QString> names;
        QHash<quint32, QList<quint32>> childPids;
        for (const ProcessSnapshot& process : m_processes) {
            names.insert(process.pid, process.name);
            childPids[process.parentPid].append(process.pid);
        }
        const std::function<QJsonObject(quint32)> node = [&](quint32 pid) {
            QJsonObject object{{u"pid"_s, qint64{pid}}, {u"name"_s, names.value(pid)}};
            QJsonArray children;
            for (const quint32 child : childPids.take(pid)) { // None for one reached again.
                if (child != pid)
                    children.append(node(child));
            }
            if (!children.isEmpty())
                object.insert(u"children"_s, children);
            return object;
        };
        QJsonArray roots;
        for (const ProcessSnapshot& process : m_processes) {
            if (!names.contains(process.parentPid) || process.parentPid == process.pid)
                roots.append(node(process.pid));
        }
        const QJsonObject result{{u"total"_s, m_processes.size()}, {u"roots"_s, roots}};
        return QJsonDocument(result).toJson();
    }

    /// Each process the parent of the next.
    void makeChain(quint32 length)
    {
        m_processes.clear();
        for (quint32 pid = 1; pid <= length; ++pid)
            m_processes.append({pid, pid - 1, {}, {}, 0, -1});
    }

    /// Duplicates, cycles, orphans and processes that are their own parent are common here.
    void makeForest(quint32 seed)
    {
        const QString names = u"|a \"b\" \\c/|\n\t\r\b\f\x01\x1f\x7f|进程\u2028|🚀é|\0|"_s +
                              QChar(0xd83d) + u"x|x"_s + QChar(0xde80);
        QRandomGenerator random(seed);
        m_processes.resize(random.bounded(40));
        for (ProcessSnapshot& process : m_processes) {
            process.pid = random.bounded(10) == 0 ? random.generate() : random.bounded(45U);
            process.parentPid = random.bounded(std::max(process.pid, 1U) + seed % 3 * 4);
            process.name = names.split(u'|').at(random.bounded(8));
        }
    }

    /// Three holders of port 8080, two of other ports, and values outside the tables.
    void openConnections()
    {
        m_script.connections.records = {
            {0, 0, u"0.0.0.0"_s, 8080, u"0.0.0.0"_s, 0, 1, 4294967295, u"服务 %2"_s},
            {0, 1, u"::"_s, 8080, u"::"_s, 0, 1, 11, u"b"_s},
            {1, 0, u"127.0.0.1"_s, 8080, u"9.9.9.9"_s, 53, 1, 12, {}},
            {0, 1, u"fe80::1%eth0"_s, 5000, u"::ffff:1.2.3.4"_s, 8080, 4, 0, {}},
            {1, 1, u"::1"_s, 65535, {}, 0, 4, 13, u"d"_s},
            {2, 2, u"1.1.1.1"_s, 1, u"2.2.2.2"_s, 2, 13, 14, u"e"_s}};
    }

    /// Checks what `tool` lists under `key`: a line for the values of each record, by `names`, and
    /// a line for the rest of the result. Without records the rest is zeros.
    template <typename Record>
    void check(fake::Listing<Record>& script, const QString& tool, const QString& key,
               const QString& names, const char* expected)
    {
        const auto call = [&] { return m_client.call(tool, {{u"port"_s, 8080}}); };
        QStringList lines;
        QJsonObject result = call().json();
        for (const QJsonValue record : result.take(key).toArray()) {
            QCOMPARE(record.toObject().size(), names.count(u' ') + 1);
            lines.append(test::values(record, names));
        }
        QCOMPARE(lines << test::text(result), test::rows(expected));

        script.error = u"读不到 %1"_s;
        QCOMPARE(call().text, u"Tool '"_s + tool + u"' failed: 读不到 %1"_s);
        script = {}; // The error is forgotten.
        for (auto member = result.begin(); member != result.end(); ++member)
            *member = member.key() == u"port"_s ? 8080 : 0;
        result.insert(key, QJsonArray());
        QCOMPARE(call().json(), result);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_directory.isValid()); // Nothing is to be written elsewhere.
        QCoreApplication::setOrganizationName(u"Korvane"_s);
        QSettings::setDefaultFormat(QSettings::IniFormat);
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_directory.path());
    }

    void init()
    {
        Singleton<SignatureService>::instance().clearCache();
        fake::reset();
        Singleton<ProcessService>::instance().listAllProcesses(); // Forgets all samples.
        fake::reset();
    }

    void arguments()
    {
        // The argument's JSON, with backticks for quotes; then it as an integer and as a text.
        const QString rows =
            u"null => 0[]|true => 1[]|-5 => -5[]|2.5 => 3[]|-2.6 => -3[]|[5] => 0[]|{`v`:5} => 0[]|"
            "1e300 => 0[]|-1e300 => 0[]|9007199254740993 => 9007199254740993[]|"
            "9223372036854775807 => 9223372036854775807[]|9223372036854775808 => 0[]|"
            "`-5` => -5[-5]|`0x10` => 0[0x10]|`` => 0[]|` \\t　a  b\\n` => 0[a  b]|"
            "`9223372036854775808` => 0[9223372036854775808]|"
            "`9223372036854775807` => 9223372036854775807[9223372036854775807]"_s;
        for (const QString& row : rows.split(u'|')) {
            const QString input = row.left(row.indexOf(u" => "_s));
            const QJsonObject args = test::json(u"{`v`:%1,`V`:7}"_s.arg(input));
            const QString integer = QString::number(integerArgument(args, "v"_L1));
            QCOMPARE(u"%1 => %2[%3]"_s.arg(input, integer, trimmedArgument(args, "v"_L1)), row);
        }
        QList<double> values{0, 1.24, 1.26, 99.96, -0.26, 0.15, 1234567890123.46};
        std::transform(values.begin(), values.end(), values.begin(), roundedToOneDecimal);
        QCOMPARE(values, (QList<double>{0, 1.2, 1.3, 100, -0.3, 0.1, 1234567890123.5}));
    }

    void listingPrimesWithoutSamples()
    {
        makeChain(1);
        for (const bool leaveSamples : {false, true}) {
            m_script.processesLeaveCpuSamples = leaveSamples;
            m_script.processes.calls = 0;
            QElapsedTimer timer;
            timer.start();
            list();
            QVERIFY(timer.elapsed() >= 490);
            QCOMPARE(m_script.processes.calls, 2);
            list();
            QCOMPARE(m_script.processes.calls, leaveSamples ? 3 : 4);
        }
        init();
        makeChain(1);
        QElapsedTimer timer;
        timer.start();
        tree(); // Which leaves too little time to measure.
        list();
        QVERIFY(timer.elapsed() >= 199 && m_script.processes.calls == 2);
    }

    void processes()
    {
        auto& signatures = Singleton<SignatureService>::instance();
        for (const int status : {1, 1, 2, 3, 3, 3, 4, 9}) {
            const QString path = u"/absent/%1"_s.arg(m_processes.size());
            m_script.signatures.insert(path, SignatureStatus(status));
            signatures.verify(path);
            m_processes.append({9, 0, {}, path, 0, 0});
        }
        m_script.verified.clear();
        const quint32 last = 4294967295;
        m_processes.append({last, last - 1, u"进程 x"_s, u"/absent/x"_s, 52428800, 12.345});
        m_processes.append(ProcessSnapshot());

        QJsonObject result = list().json();
        const QJsonArray objects = result.take("processes"_L1).toArray();
        QString labels;
        for (const auto& object : objects)
            labels += object["signature"_L1].toString() + u'|';
        QCOMPARE(labels, u"已签名 ✓|已签名 ✓|签名无效|未签名|未签名|未签名|未知||—|未知|"_s);
        QCOMPARE(test::text(objects.at(8).toObject()),
                 u"{`cpu_display`:`12.3%`,`cpu_percent`:12.345,`exe_path`:`/absent/x`,"
                 "`memory_bytes`:52428800,`memory_display`:`50.0 MB`,`name`:`进程 x`,"
                 "`parent_pid`:4294967294,`pid`:4294967295,`signature`:`—`}"_s);
        QCOMPARE(test::text(result),
                 u"{`signature_summary`:{`note`:`签名仅返回 panel/MCP 已查询过的缓存值;Korvane GUI "
                 "里点「验签可见行」会触发实际 WinVerifyTrust`,`trusted_cached`:2,"
                 "`unsigned_cached`:3,`untrusted_cached`:1},`total`:10}"_s);
        QVERIFY(m_script.verified.isEmpty());
    }

    void emptyListings()
    {
        m_script.processes.error = u"读不到"_s;
        QCOMPARE(list().text, u"Tool 'list_processes' failed: 读不到"_s);
        QCOMPARE(tree().text, u"Tool 'get_process_tree' failed: 读不到"_s);
        m_script.processes.error.clear();
        QCOMPARE(tree().text, QString::fromUtf8(plainTree()));
        QCOMPARE(list().json().value("processes"_L1), QJsonValue(QJsonArray()));
    }

    void treeMatchesThePlainOne()
    {
        for (quint32 seed = 0; seed < 1000; ++seed) {
            makeForest(seed);
            const QByteArray expected = plainTree();
            QVERIFY2(tree().text == QString::fromUtf8(expected), QByteArray::number(seed));
            const qint64 bound = ProcessTree(m_processes).textSizeBound();
            QVERIFY(expected.size() <= bound && bound <= 3 * expected.size());
        }
        QCOMPARE(m_script.processes.calls, 1000); // The tree never primes.
    }

    void deepTrees()
    {
        makeChain(1000);
        QVERIFY(tree().text == QString::fromUtf8(plainTree()));
        for (const quint32 length : {1800U, 100000U}) {
            makeChain(length);
            QVERIFY(tree().isError);
            QVERIFY(tree().text.contains(u": 进程树过深 — "_s));
        }
    }

    void commandLines()
    {
        m_script.commandLines = {{7, u"x 名"_s}, {4294967295, u"last"_s}};
        // 4294967303 is 7 in 32 bits.
        checkArguments(u"get_process_command_line"_s, u"pid"_s, u"pid command_line note"_s,
                       u"Tool 'get_process_command_line' failed: "
                       "参数 pid 缺失或非法 — 必须是正整数"_s,
                       R"(
            7 => 7|x 名|
            `7` => 7|x 名|
            8 => 8||读取失败 — 可能是受保护进程/系统进程/已退出, 或 32 位进程在 64 位下不可跨位读
            4294967295 => 4294967295|last|
            4294967303 => 4294967303||读取失败 — 可能是受保护进程/系统进程/已退出, 或 32 位进程在 64 位下不可跨位读
            0 => REFUSED
            -5 => REFUSED)");
    }

    void connections()
    {
        const QString names = u"protocol ip_version local remote state pid process_name"_s;
        openConnections();
        check(m_script.connections, u"list_network_connections"_s, u"connections"_s, names, R"(
            TCP|IPv4|0.0.0.0:8080|—|监听中|4294967295|服务 %2
            TCP|IPv6|[::]:8080|—|监听中|11|b
            UDP|IPv4|127.0.0.1:8080|—|—|12|
            TCP|IPv6|[fe80::1%eth0]:5000|[::ffff:1.2.3.4]:8080|已建立|0|
            UDP|IPv6|[::1]:65535|—|—|13|d
            UDP|IPv4|1.1.1.1:1|2.2.2.2:2||14|e
            {`ipv6_count`:3,`tcp_count`:3,`total`:6,`udp_count`:3})");
        fake::reset();
        openConnections();
        check(m_script.connections, u"find_process_by_port"_s, u"connections"_s, names, R"(
            TCP|IPv4|0.0.0.0:8080|—|监听中|4294967295|服务 %2
            TCP|IPv6|[::]:8080|—|监听中|11|b
            UDP|IPv4|127.0.0.1:8080|—|—|12|
            {`matches`:3,`port`:8080})");
        fake::reset();
        openConnections();
        checkArguments(u"find_process_by_port"_s, u"port"_s, u"port matches"_s,
                       u"Tool 'find_process_by_port' failed: 参数 port 缺失或非法 — "
                       "必须是 1-65535 的整数"_s,
                       R"(
            `8080` => 8080|3
            true => 1|1
            2 => 2|0
            65535 => 65535|1
            65535.5 => REFUSED
            0 => REFUSED
            4294975376 => REFUSED)");
    }

    void inventories()
    {
        m_script.startupItems.records = {
            {StartupSource(0), StartupCategory(0), u"名 %1"_s, u"c -x"_s, u"/e"_s, true},
            {StartupSource(1), StartupCategory(1), u"s"_s, {}, {}, false}};
        check(m_script.startupItems, u"list_startup_items"_s, u"startup_items"_s,
              u"name command exe_path source source_label source_path enabled"_s, R"(
            名 %1|c -x|/e|hklm|系统|HKLM\Software\Microsoft\Windows\CurrentVersion\Run|true
            s|||hkcu|服务|Windows 服务 (自动启动)|false
            {`total`:2})");
        QCOMPARE(m_script.scheduledTasks.calls + m_script.shellExtensions.calls, 0);

        m_script.uninstallEntries.records = {
            {0, u"i"_s, u"n"_s, u"v1"_s, u"p"_s, u"/l"_s, u"u -x"_s, 9007199254740993},
            {2, {}, u"q"_s, {}, {}, {}, {}, 0}};
        check(m_script.uninstallEntries, u"list_uninstall_entries"_s, u"entries"_s,
              u"display_name display_version publisher install_location uninstall_string size_kb "
              "size_display source"_s,
              R"(
            n|v1|p|/l|u -x|9007199254740993|8589934592.00 GB|系统 64
            q|||||0|—|用户
            {`total`:2})");

        // More run than do not.
        m_script.services.records = {
            {u"a"_s, u"A"_s, u"d"_s, u"/a -x"_s, ServiceState(3), ServiceStartType(2), 4294967295},
            {u"b"_s, {}, {}, {}, ServiceState(1), ServiceStartType(0), 0},
            {u"c"_s, {}, {}, {}, ServiceState(3), ServiceStartType(6), 0},
            {u"e"_s, {}, {}, {}, ServiceState(3), ServiceStartType(7), 0}};
        check(m_script.services, u"list_services"_s, u"entries"_s,
              u"name display_name description binary_path state start_type pid"_s, R"(
            a|A|d|/a -x|运行中|自动|4294967295
            b||||启动中…|引导|0
            c||||运行中|未知|0
            e||||运行中||0
            {`running`:3,`total`:4})");
    }

    void metrics()
    {
        constexpr quint64 large = 9007199254740993; // No double holds it.
        m_script.metrics = {
            {9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9},
            {12.345, 50, 8589934592, 17179869184, 0.1, 1, 2.5, 3, 4, 99.99, 1610612736, large}};
        QElapsedTimer timer;
        timer.start();
        const QJsonObject result = m_client.call(u"get_system_metrics"_s).json();
        QVERIFY(timer.elapsed() >= 240);
        QCOMPARE(m_script.metricsSamples, 2);
        QCOMPARE(test::text(result),
                 u"{`commit_charge_bytes`:1610612736,`commit_display`:`1.5 / 8388608.0 GB`,"
                 "`commit_limit_bytes`:9007199254740993,"
                 "`commit_note`:`提交内存(commit charge)是 OS 的承诺计数器, 非物理占用, "
                 "无法'清理'; 逼近上限(commit_percent>90)才是真风险(新内存分配失败/程序崩溃)。"
                 "memory_percent 高但 commit 充裕多为正常缓存, 无需处理。`,`commit_percent`:99.99,"
                 "`cpu_percent`:12.345,`disk_percent`:0.1,`disk_read_kbs`:1,`disk_write_kbs`:2.5,"
                 "`memory_display`:`8.0 / 16.0 GB`,`memory_percent`:50,"
                 "`memory_total_bytes`:17179869184,`memory_used_bytes`:8589934592,"
                 "`net_recv_kbs`:3,`net_send_kbs`:4}"_s);
    }

    void signatures()
    {
        // A file's name begins with its status; one whose name ends in s has a signer. A case is
        // the arguments => the results => the rest of the answer => the paths verified => those
        // whose signer was asked for.
        const QStringList cases = test::rows(R"(
            {}|{`paths`:[],`only_suspicious`:`true`,`include_signer`:1}
            |{`paths`:`2`,`only_suspicious`:1,`include_signer`:`true`}
            => 3 未签名,1s 已签名 ✓
            => {`total`:2,`trusted`:1,`unknown`:0,`unsigned`:1,`untrusted`:0} => 3 1s =>
            {`paths`:[``,``,null,5,[`1`]],`only_suspicious`:true} =>
            => {`note`:`无可验签路径 (入参 paths 为空且无可读 exe 路径的进程)`,`total`:0} => =>
            {`paths`:[`3b`,`3a`,``,`3b`,7,`3B`]} => 3b 未签名,3a 未签名,3B 未签名
            => {`total`:3,`trusted`:0,`unknown`:0,`unsigned`:3,`untrusted`:0} => 3b 3a 3B =>
            {`paths`:[`1s`,`2`,`1`,`2s`,`3s`,`4s`,`0s`,`9s`,`x`],`include_signer`:true}
            => 1s 已签名 ✓ 公司,2 签名无效,1 已签名 ✓,2s 签名无效 公司,3s 未签名,4s 未知,0s —,9s ,x 未知
            => {`total`:9,`trusted`:2,`unknown`:4,`unsigned`:1,`untrusted`:2}
            => 1s 2 1 2s 3s 4s 0s 9s x => 1s 2 1 2s
            {`paths`:[`1s`,`2`,`1`,`3`,`4s`],`only_suspicious`:true,`include_signer`:true}
            => 2 签名无效,3 未签名,4s 未知
            => {`note`:`only_suspicious=true: results[] 仅含非 Trusted 条目, 已省略 2 个已签名进程`,
            `omitted_trusted`:2,`only_suspicious`:true,
            `total`:5,`trusted`:2,`unknown`:1,`unsigned`:1,`untrusted`:1} => 1s 2 1 3 4s => 2)");
        static const QRegularExpression broken(u"\n(?=[|`=])"_s); // Within a case.
        for (const QString& row : cases.join(u'\n').remove(broken).split(u'\n')) {
            QStringList fields = row.split(u"=>"_s);
            for (QString& field : fields)
                field = field.trimmed();
            for (const QString& arguments : fields.takeFirst().split(u'|')) {
                init();
                for (const QString& path : u"1s 2 1 2s 3 3s 3b 3a 3B 4s 0s 9s"_s.split(u' ')) {
                    m_script.signatures.insert(path, SignatureStatus(path[0].digitValue()));
                    if (path.endsWith(u's'))
                        m_script.signers.insert(path, u"公司"_s);
                }
                for (const QString& path : {u"3"_s, QString(), u"1s"_s, u"3"_s})
                    m_processes.append({1, 0, {}, path, 0, 0});
                const QJsonObject args = test::json(arguments);
                QJsonObject answer = m_client.call(u"verify_signatures"_s, args).json();
                QStringList results;
                for (const QJsonValue result : answer.take(u"results"_s).toArray())
                    results.append(QVariant(result.toObject().toVariantMap().values())
                                       .toStringList()
                                       .join(u' '));
                QCOMPARE(
                    (QStringList{results.join(u','), test::text(answer),
                                 m_script.verified.join(u' '), m_script.signersAsked.join(u' ')}),
                    fields);
            }
        }
    }

    void signaturesOfManyFiles()
    {
        const QString file = m_directory.filePath(u"file"_s);
        QVERIFY(QFile(file).open(QFile::WriteOnly));
        m_script.signatures.insert(file, SignatureStatus::Trusted);
        QJsonArray paths{file};
        for (int i = 1; i < 45; ++i) {
            paths.append(u"/absent/%1"_s.arg(i));
            if (i < 10) // These are left out of the results, yet counted.
                m_script.signatures.insert(paths.last().toString(), SignatureStatus::Trusted);
        }
        QFile settings(QSettings().fileName());
        QString progress;
        m_client.call(u"verify_signatures"_s, {{u"paths"_s, paths}, {u"only_suspicious"_s, true}},
                      [&progress](const QJsonObject& told) { progress += test::text(told); });
        QCOMPARE(progress, u"{`total`:45,`verified`:20}{`total`:45,`verified`:40}"_s);

        // What is remembered is on the disk before the answer.
        QVERIFY(settings.open(QFile::ReadOnly));
        const QByteArray digest = QCryptographicHash::hash(file.toUtf8(), QCryptographicHash::Sha1);
        QVERIFY(settings.readAll().contains(digest.toHex()));
    }
};

QTEST_GUILESS_MAIN(ReadToolsTest)
#include "tst_read_tools.moc"
