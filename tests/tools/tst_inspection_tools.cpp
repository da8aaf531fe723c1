// Tests of the listing, metrics and signature tools as a client sees them, on scripted records.
#include "core/signatures.h"
#include "fake/fake_platform.h"
#include "support/mcp_client.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class InspectionToolsTest : public QObject
{
    Q_OBJECT

    test::Client m_client;
    fake::Platform& m_script = fake::platform();
    QTemporaryDir m_directory;

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
        for (const QJsonValue value : result.take(key).toArray()) {
            QStringList values;
            for (const QString& name : names.split(u' '))
                values.append(value[name].toVariant().toString());
            QCOMPARE(value.toObject().size(), values.size());
            lines.append(values.join(u'|'));
        }
        QCOMPARE(lines << test::text(result), test::rows(expected));

        script.records.clear();
        for (auto member = result.begin(); member != result.end(); ++member)
            *member = member.key() == u"port"_s ? 8080 : 0;
        result.insert(key, QJsonArray());
        QCOMPARE(call().json(), result);
        script.error = u"读不到 %1"_s;
        QCOMPARE(call().text, u"Tool '"_s + tool + u"' failed: 读不到 %1"_s);
        script.error.clear();
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
        fake::reset();
        Singleton<SignatureService>::instance().clearCache();
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
        openConnections();
        check(m_script.connections, u"find_process_by_port"_s, u"connections"_s, names, R"(
            TCP|IPv4|0.0.0.0:8080|—|监听中|4294967295|服务 %2
            TCP|IPv6|[::]:8080|—|监听中|11|b
            UDP|IPv4|127.0.0.1:8080|—|—|12|
            {`matches`:3,`port`:8080})");
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

    void ports()
    {
        // The argument => the port, its holders, and how often the connections were listed.
        const QString cases =
            u"8080 => 8080 3 1|`8080` => 8080 3 1|8079.5 => 8080 3 1|true => 1 1 1|"
            "65535 => 65535 1 1|2 => 2 0 1|0 => 0|-1 => 0|65536 => 0|65535.5 => 0|"
            "4294975376 => 0|1e300 => 0|`abc` => 0|null => 0|[8080] => 0"_s;
        for (const QString& row : cases.split(u'|')) {
            fake::reset();
            openConnections();
            const QString argument = row.section(u" => "_s, 0, 0);
            const auto reply = m_client.call(u"find_process_by_port"_s,
                                             test::json(u"{`port`:"_s + argument + u'}'));
            QString seen = argument + u" => "_s;
            for (const QString& key : {u"port"_s, u"matches"_s})
                seen +=
                    reply.isError ? QString() : QString::number(reply.json()[key].toInt()) + u' ';
            QCOMPARE(seen + QString::number(m_script.connections.calls), row);
            if (reply.isError)
                QCOMPARE(reply.text, u"Tool 'find_process_by_port' failed: 参数 port 缺失或非法 — "
                                     "必须是 1-65535 的整数"_s);
        }
        QVERIFY(m_client.call(u"find_process_by_port"_s).isError);
    }

    void metrics()
    {
        constexpr quint64 large = 9007199254740993; // No double holds it.
        m_script.metrics = {
            {9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9},
            {12.345, 50, 8589934592, 17179869184, 0.1, 1, 2.5, 3, 4, 99.99, 1610612736, large}};
        QElapsedTimer timer;
        timer.start();
        QJsonObject result = m_client.call(u"get_system_metrics"_s).json();
        QVERIFY(timer.elapsed() >= 240);
        QCOMPARE(m_script.metricsSamples, 2);
        QCOMPARE(result.take(u"commit_note"_s).toString(),
                 u"提交内存(commit charge)是 OS 的承诺计数器, 非物理占用, 无法'清理'; "
                 "逼近上限(commit_percent>90)才是真风险(新内存分配失败/程序崩溃)。"
                 "memory_percent 高但 commit 充裕多为正常缓存, 无需处理。"_s);
        QCOMPARE(test::text(result),
                 u"{`commit_charge_bytes`:1610612736,`commit_display`:`1.5 / 8388608.0 GB`,"
                 "`commit_limit_bytes`:9007199254740993,`commit_percent`:99.99,"
                 "`cpu_percent`:12.345,`disk_percent`:0.1,`disk_read_kbs`:1,`disk_write_kbs`:2.5,"
                 "`memory_display`:`8.0 / 16.0 GB`,`memory_percent`:50,"
                 "`memory_total_bytes`:17179869184,`memory_used_bytes`:8589934592,"
                 "`net_recv_kbs`:3,`net_send_kbs`:4}"_s);
    }

    void signatures()
    {
        // A file's name begins with its status; one whose name ends in s has a signer. What is
        // expected: results, counts (total, trusted, untrusted, unsigned, unknown), paths verified
        // and those whose signer was asked for.
        const auto check = [this](const QString& arguments, const QString& expected,
                                  const QString& counts, const QString& verified,
                                  const QString& signersAsked = {}) {
            init();
            for (const QString& path : u"1s 2 1 2s 3 3s 3b 3a 3B 4s 0s 9s"_s.split(u' ')) {
                m_script.signatures.insert(path, SignatureStatus(path[0].digitValue()));
                if (path.endsWith(u's'))
                    m_script.signers.insert(path, u"公司 %1"_s);
            }
            for (const QString& path : {u"3"_s, QString(), u"1s"_s, u"3"_s})
                m_script.processes.records.append({1, 0, {}, path, 0, 0});
            const QJsonObject args = test::json(arguments);
            QJsonObject answer = m_client.call(u"verify_signatures"_s, args).json();
            QStringList results;
            for (const QJsonValue result : answer.take(u"results"_s).toArray()) {
                QStringList values; // Of path, signature and, where it is there, signer.
                for (const QJsonValue value : result.toObject())
                    values.append(value.toString());
                results.append(values.join(u' '));
            }
            QCOMPARE(results.join(u'|'), expected);
            QString others;
            for (const auto key : {"total"_L1, "trusted"_L1, "untrusted"_L1, "unsigned"_L1,
                                   "unknown"_L1, "only_suspicious"_L1, "omitted_trusted"_L1})
                others += answer.take(key).toVariant().toString() + u' ';
            const QString note = answer.take(u"note"_s).toString();
            QCOMPARE(others.trimmed() + note, counts);
            QVERIFY(answer.isEmpty());
            QCOMPARE(m_script.verified.join(u' '), verified);
            QCOMPARE(m_script.signersAsked.join(u' '), signersAsked);
            QCOMPARE(m_script.processes.calls, verified.startsWith(u"3 "_s) ? 1 : 0);
        };
        for (const auto& unread :
             {u"{}"_s, u"{`paths`:[],`only_suspicious`:`true`,`include_signer`:1}"_s,
              u"{`paths`:`2`,`only_suspicious`:1,`include_signer`:`true`}"_s})
            check(unread, u"3 未签名|1s 已签名 ✓"_s, u"2 1 0 1 0"_s, u"3 1s"_s);
        check(u"{`paths`:[``,``,null,5,[`1`]],`only_suspicious`:true}"_s, {},
              u"0无可验签路径 (入参 paths 为空且无可读 exe 路径的进程)"_s, {});
        check(u"{`paths`:[`3b`,`3a`,``,`3b`,7,`3B`]}"_s, u"3b 未签名|3a 未签名|3B 未签名"_s,
              u"3 0 0 3 0"_s, u"3b 3a 3B"_s);
        check(
            u"{`paths`:[`1s`,`2`,`1`,`2s`,`3s`,`4s`,`0s`,`9s`,`x`],`include_signer`:true}"_s,
            u"1s 已签名 ✓ 公司 %1|2 签名无效|1 已签名 ✓|2s 签名无效 公司 %1|3s 未签名|4s 未知|0s —|"
            "9s |x 未知"_s,
            u"9 2 2 1 4"_s, u"1s 2 1 2s 3s 4s 0s 9s x"_s, u"1s 2 1 2s"_s);
        check(
            u"{`paths`:[`1s`,`2`,`1`],`only_suspicious`:true,`include_signer`:true}"_s,
            u"2 签名无效"_s,
            u"3 2 1 0 0 true 2only_suspicious=true: results[] 仅含非 Trusted 条目, 已省略 2 个已签名进程"_s,
            u"1s 2 1"_s, u"2"_s);
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

QTEST_GUILESS_MAIN(InspectionToolsTest)
#include "tst_inspection_tools.moc"
