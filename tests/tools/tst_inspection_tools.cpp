// Tests of the listing, metrics and signature tools as a client sees them, on scripted records.
#include "core/signature_service.h"
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

    /// The values of each object below `key`, in the order of `names`; objects with other keys are
    /// shown whole.
    static QString rows(const QJsonObject& result, const QString& key, const QString& names)
    {
        QStringList rows;
        for (const QJsonValue value : result.value(key).toArray()) {
            const QJsonObject object = value.toObject();
            QStringList row;
            for (const QString& name : names.split(u' '))
                row += object.value(name).toVariant().toString();
            rows += object.size() == row.size() ? row.join(u',') : text(object);
        }
        return rows.join(u'|');
    }

    /// The result without the array below `key`.
    static QString totals(QJsonObject result, const QString& key)
    {
        result.remove(key);
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

    void listings_data()
    {
        QTest::addColumn<QString>("tool");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("names");
        QTest::addColumn<QString>("expectedRows");
        QTest::addColumn<QString>("expectedTotals");
        QTest::addColumn<QString>("emptyTotals");
        // clang-format off
        QTest::newRow("connections") << u"list_network_connections"_s << u"connections"_s << u"protocol ip_version local remote state pid process_name"_s
            << u"TCP,IPv4,0.0.0.0:8080,—,监听中,4294967295,服务 %2|TCP,IPv6,[::]:8080,—,监听中,11,b|UDP,IPv4,127.0.0.1:8080,—,—,12,|"
               "TCP,IPv6,[fe80::1%eth0]:5000,[::ffff:1.2.3.4]:8080,已建立,0,|UDP,IPv6,[::1]:65535,—,—,13,d|UDP,IPv4,1.1.1.1:1,2.2.2.2:2,,14,e"_s
            << u"{`ipv6_count`:3,`tcp_count`:3,`total`:6,`udp_count`:3}"_s << u"{`ipv6_count`:0,`tcp_count`:0,`total`:0,`udp_count`:0}"_s;
        QTest::newRow("startup items") << u"list_startup_items"_s << u"startup_items"_s << u"name command exe_path source source_label source_path enabled"_s
            << u"名 %1,c -x,/e,hklm,系统,HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Run,true|s,,,hkcu,服务,Windows 服务 (自动启动),false|t,,,hkcu,,,true"_s
            << u"{`total`:3}"_s << u"{`total`:0}"_s;
        QTest::newRow("software") << u"list_uninstall_entries"_s << u"entries"_s << u"display_name display_version publisher install_location uninstall_string size_kb size_display source"_s
            << u"n,1.0,p,/l,u -x,9007199254740993,8589934592.00 GB,系统 64|o,,,,,2048,2.0 MB,系统 32|q,,,,,0,—,用户|r,,,,,-5,—,"_s
            << u"{`total`:4}"_s << u"{`total`:0}"_s;
        QTest::newRow("services") << u"list_services"_s << u"entries"_s << u"name display_name description binary_path state start_type pid"_s
            << u"a,A,d,/a -x,运行中,自动,4294967295|b,,,,启动中…,引导,0|c,,,,运行中,未知,0|e,,,,,,0"_s
            << u"{`running`:2,`total`:4}"_s << u"{`running`:0,`total`:0}"_s;
        QTest::newRow("holders of a port") << u"find_process_by_port"_s << u"connections"_s << u"protocol ip_version local remote state pid process_name"_s
            << u"TCP,IPv4,0.0.0.0:8080,—,监听中,4294967295,服务 %2|TCP,IPv6,[::]:8080,—,监听中,11,b|UDP,IPv4,127.0.0.1:8080,—,—,12,"_s
            << u"{`matches`:3,`port`:8080}"_s << u"{`matches`:0,`port`:8080}"_s;
        // clang-format on
    }
    void listings()
    {
        QFETCH(QString, tool);
        QFETCH(QString, key);
        const auto call = [&] { return m_client.call(tool, {{u"port"_s, 8080}}); };
        QTEST(totals(call().json(), key), "emptyTotals");
        QVERIFY(call().json().value(key).isArray());

        openConnections();
        m_script.startupItems.records = {
            {StartupSource(0), StartupCategory(0), u"名 %1"_s, u"c -x"_s, u"/e"_s, true},
            {StartupSource(1), StartupCategory(1), u"s"_s, {}, {}, false},
            {StartupSource(2), StartupCategory(4), u"t"_s, {}, {}, true}};
        m_script.uninstallEntries.records = {
            {0, u"i"_s, u"n"_s, u"1.0"_s, u"p"_s, u"/l"_s, u"u -x"_s, 9007199254740993},
            {1, {}, u"o"_s, {}, {}, {}, {}, 2048},
            {2, {}, u"q"_s, {}, {}, {}, {}, 0},
            {3, {}, u"r"_s, {}, {}, {}, {}, -5}};
        m_script.services.records = {
            {u"a"_s, u"A"_s, u"d"_s, u"/a -x"_s, ServiceState::Running, ServiceStartType::Auto,
             4294967295},
            {u"b"_s, {}, {}, {}, ServiceState::StartPending, ServiceStartType::Boot, 0},
            {u"c"_s, {}, {}, {}, ServiceState::Running, ServiceStartType::Unknown, 0},
            {u"e"_s, {}, {}, {}, ServiceState(8), ServiceStartType(7), 0}};
        const QJsonObject result = call().json();
        QFETCH(QString, names);
        QTEST(rows(result, key, names), "expectedRows");
        QTEST(totals(result, key), "expectedTotals");
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

        fake::reset();
        const QJsonObject zeros = call().json();
        QCOMPARE(zeros.size(), 15);
        QCOMPARE(zeros.value(u"memory_display"_s), QJsonValue(u"0.0 / 0.0 GB"_s));
        QCOMPARE(zeros.value(u"memory_percent"_s), QJsonValue(0));
    }

    void signatures_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("verified");
        QTest::addColumn<QString>("signersAsked");
        // The digit in a file's name is its status; files whose name has an s have a signer.
        // clang-format off
        const QString none = u"{`note`:`无可验签路径 (入参 paths 为空且无可读 exe 路径的进程)`,`results`:[],`total`:0}"_s;
        const auto plain = [](const QString& path, const QString& label) { return u"{`path`:`"_s + path + u"`,`signature`:`"_s + label + u"`}"_s; };
        const auto counts = [](const QString& results, int total, int trusted, int unknown, int unsign, int untrusted) {
            return u"`results`:["_s + results + u"],`total`:%1,`trusted`:%2,`unknown`:%3,`unsigned`:%4,`untrusted`:%5}"_s.arg(QString::number(total), QString::number(trusted), QString::number(unknown), QString::number(unsign), QString::number(untrusted));
        };
        const QString processes = u'{' + counts(plain(u"/3"_s, u"未签名"_s) + u',' + plain(u"/1s"_s, u"已签名 ✓"_s), 2, 1, 0, 1, 0);
        const QString mixed = u"`/1s`,`/2`,`/1`,`/2s`,`/3s`,`/4s`,`/0`,`/9s`,`/x`"_s;
        QTest::newRow("processes") << u"{}"_s << processes << u"/3 /1s"_s << QString();
        QTest::newRow("no paths") << u"{`paths`:[],`only_suspicious`:`true`,`include_signer`:1}"_s << processes << u"/3 /1s"_s << QString();
        QTest::newRow("no array") << u"{`paths`:`/2`,`only_suspicious`:1,`include_signer`:`true`}"_s << processes << u"/3 /1s"_s << QString();
        QTest::newRow("empty paths") << u"{`paths`:[``,``,null,5,[`/1`]],`only_suspicious`:true}"_s << none << QString() << QString();
        QTest::newRow("order, duplicates") << u"{`paths`:[`/b3`,`/a3`,``,`/b3`,7,`/B3`]}"_s
            << u'{' + counts(plain(u"/b3"_s, u"未签名"_s) + u',' + plain(u"/a3"_s, u"未签名"_s) + u',' + plain(u"/B3"_s, u"未签名"_s), 3, 0, 0, 3, 0) << u"/b3 /a3 /B3"_s << QString();
        QTest::newRow("signers") << u"{`paths`:[%1],`include_signer`:true}"_s.arg(mixed)
            << u'{' + counts(u"{`path`:`/1s`,`signature`:`已签名 ✓`,`signer`:`公司 %1`},"_s + plain(u"/2"_s, u"签名无效"_s) + u',' + plain(u"/1"_s, u"已签名 ✓"_s) + u",{`path`:`/2s`,`signature`:`签名无效`,`signer`:`公司 %1`},"_s
                + plain(u"/3s"_s, u"未签名"_s) + u',' + plain(u"/4s"_s, u"未知"_s) + u',' + plain(u"/0"_s, u"—"_s) + u',' + plain(u"/9s"_s, {}) + u',' + plain(u"/x"_s, u"未知"_s), 9, 2, 4, 1, 2)
            << u"/1s /2 /1 /2s /3s /4s /0 /9s /x"_s << u"/1s /2 /1 /2s"_s;
        QTest::newRow("only suspicious") << u"{`paths`:[`/1s`,`/2`,`/1`],`only_suspicious`:true,`include_signer`:true}"_s
            << u"{`note`:`only_suspicious=true: results[] 仅含非 Trusted 条目, 已省略 2 个已签名进程`,`omitted_trusted`:2,`only_suspicious`:true,"_s + counts(plain(u"/2"_s, u"签名无效"_s), 3, 2, 0, 0, 1) << u"/1s /2 /1"_s << u"/2"_s;
        // clang-format on
    }
    void signatures()
    {
        for (const QString& path : u"/1s /2 /1 /2s /3 /3s /b3 /a3 /B3 /4s /0 /9s"_s.split(u' ')) {
            const QString digit = QString(path).remove(QRegularExpression(u"\\D"_s));
            m_script.signatures.insert(path, SignatureStatus(digit.toInt()));
            if (path.endsWith(u's'))
                m_script.signers.insert(path, u"公司 %1"_s);
        }
        for (const QString& path : {u"/3"_s, QString(), u"/1s"_s, u"/3"_s})
            m_script.processes.records.append({1, 0, {}, path, 0, 0});
        QFETCH(QString, arguments);
        QTEST(text(m_client.call(u"verify_signatures"_s, json(arguments)).json()), "expected");
        QTEST(m_script.verified.join(u' '), "verified");
        QTEST(m_script.signersAsked.join(u' '), "signersAsked");
        QCOMPARE(m_script.processes.calls, m_script.verified.startsWith(u"/3"_s) ? 1 : 0);
    }

    void signaturesOfManyFiles()
    {
        QJsonArray paths;
        for (int i = 0; i < 45; ++i)
            paths.append(u"/%1"_s.arg(i));
        m_script.signatures.insert(u"/19"_s, SignatureStatus::Trusted); // Left out, yet counted.
        const QString file = m_directory.filePath(u"file"_s);
        QVERIFY(QFile(file).open(QFile::WriteOnly));
        m_script.signatures.insert(file, SignatureStatus::Trusted);
        paths.append(file);
        QStringList progress;
        m_client.call(u"verify_signatures"_s, {{u"paths"_s, paths}, {u"only_suspicious"_s, true}},
                      [&progress](const QJsonObject& told) { progress.append(text(told)); });
        QCOMPARE(progress.join(u' '), u"{`total`:46,`verified`:20} {`total`:46,`verified`:40}"_s);

        // What is remembered is on the disk before the answer.
        QFile settings(QSettings().fileName());
        QVERIFY(settings.open(QFile::ReadOnly));
        const QByteArray digest = QCryptographicHash::hash(file.toUtf8(), QCryptographicHash::Sha1);
        QVERIFY(settings.readAll().contains(digest.toHex()));
    }
};

QTEST_GUILESS_MAIN(InspectionToolsTest)
#include "tst_inspection_tools.moc"
