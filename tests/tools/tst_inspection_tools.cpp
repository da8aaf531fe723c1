// Tests of the listing, metrics and signature tools as a client sees them, on scripted records.
#include "core/signatures.h"
#include "fake/fake_platform.h"
#include "support/mcp_client.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
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

    /// Backticks stand for double quotes.
    static QJsonObject json(const QString& text)
    {
        return QJsonDocument::fromJson(QString(text).replace(u'`', u'"').toUtf8()).object();
    }

    static QString text(const QJsonObject& object)
    {
        const QByteArray compact = QJsonDocument(object).toJson(QJsonDocument::Compact);
        return QString::fromUtf8(compact).replace(u'"', u'`');
    }

    /// The result, its objects as arrays of their values in the order of `names`; an object with
    /// other keys stays as it is.
    static QString shortText(QJsonObject result, const QString& key, const QString& names)
    {
        QJsonArray rows;
        for (const QJsonValue value : result.value(key).toArray()) {
            QJsonArray row;
            for (const QString& name : names.split(u' '))
                row.append(value.toObject().value(name));
            rows.append(value.toObject().size() == row.size() ? QJsonValue(row) : value);
        }
        result.insert(key, rows);
        return text(result);
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

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(u"Korvane"_s);
        QSettings::setDefaultFormat(QSettings::IniFormat);
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_directory.path());
    }

    void init()
    {
        fake::reset();
        Singleton<SignatureService>::instance().clearCache();
    }

    // clang-format off
    void listings_data()
    {
        for (const char* column : {"tool", "key", "names", "expected", "expectedWhenEmpty"})
            QTest::addColumn<QString>(column);
        const auto row = [](const char* tag, const char* tool, const char* key, const char* names, const char* expected, const char* empty) {
            QTest::newRow(tag) << QString::fromUtf8(tool) << QString::fromUtf8(key) << QString::fromUtf8(names) << QString::fromUtf8(expected) << QString::fromUtf8(empty);
        };
        row("connections", "list_network_connections", "connections", "protocol ip_version local remote state pid process_name",
            "{`connections`:[[`TCP`,`IPv4`,`0.0.0.0:8080`,`—`,`监听中`,4294967295,`服务 %2`],[`TCP`,`IPv6`,`[::]:8080`,`—`,`监听中`,11,`b`],[`UDP`,`IPv4`,`127.0.0.1:8080`,`—`,`—`,12,``],[`TCP`,`IPv6`,`[fe80::1%eth0]:5000`,`[::ffff:1.2.3.4]:8080`,`已建立`,0,``],[`UDP`,`IPv6`,`[::1]:65535`,`—`,`—`,13,`d`],[`UDP`,`IPv4`,`1.1.1.1:1`,`2.2.2.2:2`,``,14,`e`]],`ipv6_count`:3,`tcp_count`:3,`total`:6,`udp_count`:3}",
            "{`connections`:[],`ipv6_count`:0,`tcp_count`:0,`total`:0,`udp_count`:0}");
        row("holders of a port", "find_process_by_port", "connections", "protocol ip_version local remote state pid process_name",
            "{`connections`:[[`TCP`,`IPv4`,`0.0.0.0:8080`,`—`,`监听中`,4294967295,`服务 %2`],[`TCP`,`IPv6`,`[::]:8080`,`—`,`监听中`,11,`b`],[`UDP`,`IPv4`,`127.0.0.1:8080`,`—`,`—`,12,``]],`matches`:3,`port`:8080}",
            "{`connections`:[],`matches`:0,`port`:8080}");
        row("startup items", "list_startup_items", "startup_items", "name command exe_path source source_label source_path enabled",
            "{`startup_items`:[[`名 %1`,`c -x`,`/e`,`hklm`,`系统`,`HKLM\\\\Software\\\\Microsoft\\\\Windows\\\\CurrentVersion\\\\Run`,true],[`s`,``,``,`hkcu`,`服务`,`Windows 服务 (自动启动)`,false],[`t`,``,``,`hkcu`,``,``,true]],`total`:3}",
            "{`startup_items`:[],`total`:0}");
        row("software", "list_uninstall_entries", "entries", "display_name display_version publisher install_location uninstall_string size_kb size_display source",
            "{`entries`:[[`n`,`v1`,`p`,`/l`,`u -x`,9007199254740993,`8589934592.00 GB`,`系统 64`],[`o`,``,``,``,``,2048,`2.0 MB`,`系统 32`],[`q`,``,``,``,``,0,`—`,`用户`],[`r`,``,``,``,``,-5,`—`,``]],`total`:4}",
            "{`entries`:[],`total`:0}");
        row("services", "list_services", "entries", "name display_name description binary_path state start_type pid",
            "{`entries`:[[`a`,`A`,`d`,`/a -x`,`运行中`,`自动`,4294967295],[`b`,``,``,``,`启动中…`,`引导`,0],[`c`,``,``,``,`运行中`,`未知`,0],[`e`,``,``,``,``,``,0]],`running`:2,`total`:4}",
            "{`entries`:[],`running`:0,`total`:0}");
    }
    // clang-format on
    void listings()
    {
        QFETCH(QString, tool);
        QFETCH(QString, key);
        const auto call = [&] { return m_client.call(tool, {{u"port"_s, 8080}}); };
        QTEST(text(call().json()), "expectedWhenEmpty");

        openConnections();
        m_script.startupItems.records = {
            {StartupSource(0), StartupCategory(0), u"名 %1"_s, u"c -x"_s, u"/e"_s, true},
            {StartupSource(1), StartupCategory(1), u"s"_s, {}, {}, false},
            {StartupSource(2), StartupCategory(4), u"t"_s, {}, {}, true}};
        m_script.uninstallEntries.records = {
            {0, u"i"_s, u"n"_s, u"v1"_s, u"p"_s, u"/l"_s, u"u -x"_s, 9007199254740993},
            {1, {}, u"o"_s, {}, {}, {}, {}, 2048},
            {2, {}, u"q"_s, {}, {}, {}, {}, 0},
            {3, {}, u"r"_s, {}, {}, {}, {}, -5}};
        m_script.services.records = {
            {u"a"_s, u"A"_s, u"d"_s, u"/a -x"_s, ServiceState::Running, ServiceStartType::Auto,
             4294967295},
            {u"b"_s, {}, {}, {}, ServiceState::StartPending, ServiceStartType::Boot, 0},
            {u"c"_s, {}, {}, {}, ServiceState::Running, ServiceStartType::Unknown, 0},
            {u"e"_s, {}, {}, {}, ServiceState(8), ServiceStartType(7), 0}};
        QFETCH(QString, names);
        QTEST(shortText(call().json(), key, names), "expected");
        QCOMPARE(m_script.scheduledTasks.calls + m_script.shellExtensions.calls, 0);

        for (QString* error : {&m_script.connections.error, &m_script.startupItems.error,
                               &m_script.uninstallEntries.error, &m_script.services.error})
            *error = u"读不到 %1"_s;
        QCOMPARE(call().text, u"Tool '%1' failed: 读不到 "_s.arg(tool) + u"%1"_s);
    }

    void ports()
    {
        // The argument => the port, its holders, and how often the connections were listed.
        // clang-format off
        const QString cases = u"8080 => 8080 3 1|`8080` => 8080 3 1|8079.5 => 8080 3 1|true => 1 1 1|65535 => 65535 1 1|2 => 2 0 1|"
            "0 => 0|-1 => 0|65536 => 0|65535.5 => 0|4294975376 => 0|1e300 => 0|`abc` => 0|`` => 0|`8080x` => 0|null => 0|false => 0|[8080] => 0|{`v`:1} => 0"_s;
        // clang-format on
        for (const QString& row : cases.split(u'|')) {
            fake::reset();
            openConnections();
            const QString argument = row.left(row.indexOf(u" => "_s));
            const auto reply =
                m_client.call(u"find_process_by_port"_s, json(u"{`port`:%1}"_s.arg(argument)));
            const QJsonObject result = reply.json();
            const QString numbers =
                u"%1 %2 "_s.arg(QString::number(result[u"port"_s].toInteger()),
                                QString::number(result[u"matches"_s].toInteger()));
            QCOMPARE(argument + u" => "_s + (reply.isError ? QString() : numbers) +
                         QString::number(m_script.connections.calls),
                     row);
            if (reply.isError)
                QCOMPARE(reply.text, u"Tool 'find_process_by_port' failed: 参数 port 缺失或非法 — "
                                     "必须是 1-65535 的整数"_s);
        }
        QVERIFY(m_client.call(u"find_process_by_port"_s).isError);
        QCOMPARE(m_script.connections.calls, 0);
    }

    void metrics()
    {
        constexpr quint64 large = 9007199254740993; // No double holds it.
        m_script.metrics = {
            {9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9},
            {12.345, 50, 8589934592, 17179869184, 0.1, 1, 2.5, 3, 4, 99.99, 1610612736, large}};
        QElapsedTimer timer;
        timer.start();
        const auto call = [this] { return m_client.call(u"get_system_metrics"_s); };
        // clang-format off
        const QString note = u"提交内存(commit charge)是 OS 的承诺计数器, 非物理占用, 无法'清理'; 逼近上限(commit_percent>90)才是真风险(新内存分配失败/程序崩溃)。memory_percent 高但 commit 充裕多为正常缓存, 无需处理。"_s;
        QCOMPARE(text(call().json()), u"{`commit_charge_bytes`:1610612736,`commit_display`:`1.5 / 8388608.0 GB`,`commit_limit_bytes`:9007199254740993,`commit_note`:`"_s + note +
            u"`,`commit_percent`:99.99,`cpu_percent`:12.345,`disk_percent`:0.1,`disk_read_kbs`:1,`disk_write_kbs`:2.5,`memory_display`:`8.0 / 16.0 GB`,`memory_percent`:50,"
            "`memory_total_bytes`:17179869184,`memory_used_bytes`:8589934592,`net_recv_kbs`:3,`net_send_kbs`:4}"_s);
        // clang-format on
        QVERIFY(timer.elapsed() >= 240);
        QCOMPARE(m_script.metricsSamples, 2);
    }

    // clang-format off
    void signatures_data()
    {
        for (const char* column : {"arguments", "results", "others", "verified", "signersAsked"})
            QTest::addColumn<QString>(column);
        const auto row = [](const char* tag, const char* arguments, const char* results, const char* others, const char* verified = "", const char* signersAsked = "") {
            QTest::newRow(tag) << QString::fromUtf8(arguments) << QString::fromUtf8(results) << QString::fromUtf8(others) << QString::fromUtf8(verified) << QString::fromUtf8(signersAsked);
        };
        const char* const ofTwo = "{`total`:2,`trusted`:1,`unknown`:0,`unsigned`:1,`untrusted`:0}";
        row("processes", "{}", "/3 未签名|/1s 已签名 ✓", ofTwo, "/3 /1s");
        row("no paths", "{`paths`:[],`only_suspicious`:`true`,`include_signer`:1}", "/3 未签名|/1s 已签名 ✓", ofTwo, "/3 /1s");
        row("no array", "{`paths`:`/2`,`only_suspicious`:1,`include_signer`:`true`}", "/3 未签名|/1s 已签名 ✓", ofTwo, "/3 /1s");
        row("empty paths", "{`paths`:[``,``,null,5,[`/1`]],`only_suspicious`:true}", "", "{`note`:`无可验签路径 (入参 paths 为空且无可读 exe 路径的进程)`,`total`:0}");
        row("order, duplicates", "{`paths`:[`/b3`,`/a3`,``,`/b3`,7,`/B3`]}", "/b3 未签名|/a3 未签名|/B3 未签名", "{`total`:3,`trusted`:0,`unknown`:0,`unsigned`:3,`untrusted`:0}", "/b3 /a3 /B3");
        row("signers", "{`paths`:[`/1s`,`/2`,`/1`,`/2s`,`/3s`,`/4s`,`/0s`,`/9s`,`/x`],`include_signer`:true}",
            "/1s 已签名 ✓ 公司 %1|/2 签名无效|/1 已签名 ✓|/2s 签名无效 公司 %1|/3s 未签名|/4s 未知|/0s —|/9s |/x 未知",
            "{`total`:9,`trusted`:2,`unknown`:4,`unsigned`:1,`untrusted`:2}", "/1s /2 /1 /2s /3s /4s /0s /9s /x", "/1s /2 /1 /2s");
        row("only suspicious", "{`paths`:[`/1s`,`/2`,`/1`],`only_suspicious`:true,`include_signer`:true}", "/2 签名无效",
            "{`note`:`only_suspicious=true: results[] 仅含非 Trusted 条目, 已省略 2 个已签名进程`,`omitted_trusted`:2,`only_suspicious`:true,`total`:3,`trusted`:2,`unknown`:0,`unsigned`:0,`untrusted`:1}", "/1s /2 /1", "/2");
        row("none suspicious", "{`paths`:[`/1`],`only_suspicious`:true}", "",
            "{`note`:`only_suspicious=true: results[] 仅含非 Trusted 条目, 已省略 1 个已签名进程`,`omitted_trusted`:1,`only_suspicious`:true,`total`:1,`trusted`:1,`unknown`:0,`unsigned`:0,`untrusted`:0}", "/1");
    }
    // clang-format on
    void signatures()
    {
        // The digit in a file's name is its status; one whose name ends in s has a signer.
        for (const QString& path : u"/1s /2 /1 /2s /3 /3s /b3 /a3 /B3 /4s /0s /9s"_s.split(u' ')) {
            const QString digit = QString(path).remove(QRegularExpression(u"\\D"_s));
            m_script.signatures.insert(path, SignatureStatus(digit.toInt()));
            if (path.endsWith(u's'))
                m_script.signers.insert(path, u"公司 %1"_s);
        }
        for (const QString& path : {u"/3"_s, QString(), u"/1s"_s, u"/3"_s})
            m_script.processes.records.append({1, 0, {}, path, 0, 0});
        QFETCH(QString, arguments);
        QJsonObject answer = m_client.call(u"verify_signatures"_s, json(arguments)).json();
        QStringList results;
        for (const QJsonValue result : answer.take(u"results"_s).toArray()) {
            QStringList values; // Of path, signature and, where it is there, signer.
            for (const QJsonValue value : result.toObject())
                values.append(value.toString());
            results.append(values.join(u' '));
        }
        QTEST(results.join(u'|'), "results");
        QTEST(text(answer), "others");
        QTEST(m_script.verified.join(u' '), "verified");
        QTEST(m_script.signersAsked.join(u' '), "signersAsked");
        QCOMPARE(m_script.processes.calls, m_script.verified.startsWith(u"/3"_s) ? 1 : 0);
    }

    void signaturesOfManyFiles()
    {
        const QString file = m_directory.filePath(u"file"_s);
        QVERIFY(QFile(file).open(QFile::WriteOnly));
        m_script.signatures.insert(file, SignatureStatus::Trusted);
        QJsonArray paths{file};
        for (int i = 1; i < 45; ++i) {
            paths.append(u"/%1"_s.arg(i));
            if (i < 10) // These are left out of the results, yet counted.
                m_script.signatures.insert(paths.last().toString(), SignatureStatus::Trusted);
        }
        QFile settings(QSettings().fileName());
        QStringList progress;
        m_client.call(u"verify_signatures"_s, {{u"paths"_s, paths}, {u"only_suspicious"_s, true}},
                      [&progress](const QJsonObject& told) { progress.append(text(told)); });
        QCOMPARE(progress.join(u' '), u"{`total`:45,`verified`:20} {`total`:45,`verified`:40}"_s);

        // What is remembered is on the disk before the answer.
        QVERIFY(settings.open(QFile::ReadOnly));
        const QByteArray digest = QCryptographicHash::hash(file.toUtf8(), QCryptographicHash::Sha1);
        QVERIFY(settings.readAll().contains(digest.toHex()));
    }
};

QTEST_GUILESS_MAIN(InspectionToolsTest)
#include "tst_inspection_tools.moc"
