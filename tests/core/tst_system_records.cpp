// Tests of the records' display texts and label tables, at the borders of their ranges.
#include "base/system_records.h"

#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class SystemRecordsTest : public QObject
{
    Q_OBJECT

    /// A row: the texts that `display` gives the values, separated by bars, and what they have to be.
    template <typename Value = quint32, typename Display>
    static void row(const char* tag, std::initializer_list<qint64> values, const Display& display,
                    const QString& expected)
    {
        QStringList texts;
        for (const qint64 value : values)
            texts.append(display(static_cast<Value>(value)));
        QTest::newRow(tag) << texts.join(u'|') << expected;
    }

private Q_SLOTS:
    // clang-format off
    void texts_data()
    {
        QTest::addColumn<QString>("actual");
        QTest::addColumn<QString>("expected");

        row<qint64>("memory", {-1, 0, 1, 52428800, 104857599, 104857600, 1610612736},
            [](qint64 bytes) { return ProcessSnapshot{1, 1, {}, {}, bytes, 0}.memoryDisplay(); },
            u"—|—|0.0 MB|50.0 MB|100.0 MB|100 MB|1536 MB"_s);
        row<qint64>("processor", {-1, 0, 1246, 10000},
            [](qint64 value) { return ProcessSnapshot{1, 1, {}, {}, 0, value < 0 ? -0.01 : double(value) / 100}.cpuDisplay(); },
            u"—|0.0%|12.5%|100.0%"_s);
        row<qint64>("size", {-1, 0, 1, 2048, 102399, 102400, 512000, 1048575, 1048576, 3145728},
            [](qint64 kib) { return UninstallEntry{0, {}, {}, {}, {}, {}, {}, kib}.sizeDisplay(); },
            u"—|—|0.0 MB|2.0 MB|100.0 MB|100 MB|500 MB|1024 MB|1.00 GB|3.00 GB"_s);

        const auto connection = [](quint32 protocol, quint32 family) {
            return [=](quint32 state) {
                const NetConnection c{protocol, family, u"f::%2"_s, 443, u"g"_s, 65535, state, 0, {}};
                return QStringList{c.localEndpoint(), c.remoteEndpoint(), stateLabel(c)}.join(u' ');
            };
        };
        row("TCP/IPv4", {0, 1, 10, 13}, connection(0, 0), u"f::%2:443 g:65535 已关闭|f::%2:443 — 监听中|f::%2:443 g:65535 TIME_WAIT|f::%2:443 g:65535 "_s);
        row("TCP/IPv6", {1, 4}, connection(0, 1), u"[f::%2]:443 — 监听中|[f::%2]:443 [g]:65535 已建立"_s);
        row("TCP, unknown family", {4}, connection(0, 2), u"f::%2:443 g:65535 已建立"_s);
        row("UDP/IPv4", {1, 4}, connection(1, 0), u"f::%2:443 — —|f::%2:443 — —"_s);

        row("protocols", {0, 1, 2}, protocolLabel, u"TCP|UDP|UDP"_s);
        row("families", {0, 1, 2}, familyLabel, u"IPv4|IPv6|IPv4"_s);
        row("TCP states", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}, tcpStateLabel,
            u"已关闭|监听中|SYN_SENT|SYN_RCVD|已建立|FIN_WAIT_1|FIN_WAIT_2|CLOSE_WAIT|CLOSING|LAST_ACK|TIME_WAIT|DELETE_TCB|UNKNOWN|"_s);
        row<ServiceState>("service states", {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8}, serviceStateLabel, u"|已停止|启动中…|停止中…|运行中|恢复中…|暂停中…|已暂停|未知|"_s);
        row<ServiceStartType>("start types", {-1, 0, 1, 2, 3, 4, 5, 6, 7}, serviceStartTypeLabel, u"|引导|系统|自动|自动(延迟)|手动|已禁用|未知|"_s);
        row("uninstall sources", {0, 1, 2, 3}, uninstallSourceLabel, u"系统 64|系统 32|用户|"_s);
        row<StartupSource>("startup keys", {0, 1, 2}, startupSourceKey, u"hklm|hkcu|hkcu"_s);
        const auto startup = [](QString (*label)(const StartupItem&), int source) {
            return [=](StartupCategory category) { return label({StartupSource(source), category, {}, {}, {}, false}); };
        };
        row<StartupCategory>("machine labels", {0, 1, 2, 3, 4}, startup(startupSourceLabel, 0), u"系统|服务|计划任务|Shell 扩展|"_s);
        row<StartupCategory>("user label", {0}, startup(startupSourceLabel, 2), u"用户"_s);
        row<StartupCategory>("machine paths", {0, 1, 2, 3, 4}, startup(startupSourcePath, 0),
                             uR"(HKLM\Software\Microsoft\Windows\CurrentVersion\Run|Windows 服务 (自动启动)|任务计划程序 (登录/开机触发)|Shell 扩展 (已批准)|)"_s);
        row<StartupCategory>("user path", {0}, startup(startupSourcePath, 2), uR"(HKCU\Software\Microsoft\Windows\CurrentVersion\Run)"_s);
    }
    // clang-format on

    void texts()
    {
        QFETCH(QString, actual);
        QFETCH(QString, expected);
        QCOMPARE(actual, expected);
    }
};

QTEST_GUILESS_MAIN(SystemRecordsTest)
#include "tst_system_records.moc"
