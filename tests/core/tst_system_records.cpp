// Tests of the records' display texts and label tables, at the borders of their ranges.
#include "base/system_records.h"

#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class SystemRecordsTest : public QObject
{
    Q_OBJECT

    /// What `display` makes of the values.
    template <typename Value, typename Display>
    static QString shown(const QList<qint64>& values, const Display& display)
    {
        QStringList texts;
        for (const qint64 value : values)
            texts.append(display(static_cast<Value>(value)));
        return texts.join(u'|');
    }

    /// The labels of -1 to `last`.
    template <typename Value> static QString labels(QString (*label)(Value), qint64 last)
    {
        QList<qint64> values;
        for (qint64 value = -1; value <= last; ++value)
            values.append(value);
        return shown<Value>(values, label);
    }

private Q_SLOTS:
    void sizesAndShares()
    {
        const auto memory = [](qint64 bytes) {
            return ProcessSnapshot{1, 1, {}, {}, bytes, 0}.memoryDisplay();
        };
        QCOMPARE(shown<qint64>({-1, 0, 1, 52428800, 104857599, 104857600, 1610612736}, memory),
                 u"—|—|0.0 MB|50.0 MB|100.0 MB|100 MB|1536 MB"_s);
        const auto share = [](qint64 value) {
            return ProcessSnapshot{1, 1, {}, {}, 0, double(value) / 100}.cpuDisplay();
        };
        QCOMPARE(shown<qint64>({-1, 0, 1246, 10000}, share), u"—|0.0%|12.5%|100.0%"_s);
        const auto size = [](qint64 kib) {
            return UninstallEntry{0, {}, {}, {}, {}, {}, {}, kib}.sizeDisplay();
        };
        QCOMPARE(shown<qint64>({-1, 0, 1, 2048, 102399, 102400, 1048575, 1048576, 3145728}, size),
                 u"—|—|0.0 MB|2.0 MB|100.0 MB|100 MB|1024 MB|1.00 GB|3.00 GB"_s);
    }

    void endpoints()
    {
        QStringList texts;
        for (const quint32 protocol : {0U, 1U}) {
            for (const quint32 family : {0U, 1U, 2U}) {
                for (const quint32 state : {1U, 4U}) {
                    const NetConnection c{protocol, family, u"f::%2"_s, 443, u"g"_s,
                                          65535,    state,  0,          {}};
                    texts << c.localEndpoint() + u' ' + c.remoteEndpoint() + u' ' + stateLabel(c);
                }
            }
        }
        const QString tcp = u"f::%2:443 — 监听中|f::%2:443 g:65535 已建立|"_s;
        const QString udp = u"f::%2:443 — —|f::%2:443 — —|"_s;
        QCOMPARE(texts.join(u'|') + u'|',
                 tcp + u"[f::%2]:443 — 监听中|[f::%2]:443 [g]:65535 已建立|"_s + tcp + udp +
                     u"[f::%2]:443 — —|[f::%2]:443 — —|"_s + udp);
    }

    void labelTables()
    {
        QCOMPARE(labels(protocolLabel, 2), u"UDP|TCP|UDP|UDP"_s);
        QCOMPARE(labels(familyLabel, 2), u"IPv4|IPv4|IPv6|IPv4"_s);
        QCOMPARE(
            labels(tcpStateLabel, 13),
            u"|已关闭|监听中|SYN_SENT|SYN_RCVD|已建立|FIN_WAIT_1|FIN_WAIT_2|CLOSE_WAIT|CLOSING|"
            "LAST_ACK|TIME_WAIT|DELETE_TCB|UNKNOWN|"_s);
        QCOMPARE(labels(serviceStateLabel, 8),
                 u"|已停止|启动中…|停止中…|运行中|恢复中…|暂停中…|已暂停|未知|"_s);
        QCOMPARE(labels(serviceStartTypeLabel, 7),
                 u"|引导|系统|自动|自动(延迟)|手动|已禁用|未知|"_s);
        QCOMPARE(labels(uninstallSourceLabel, 3), u"|系统 64|系统 32|用户|"_s);
        QCOMPARE(labels(startupSourceKey, 2), u"hkcu|hklm|hkcu|hkcu"_s);
        QStringList texts;
        for (const auto source : {StartupSource::hklm, StartupSource::hkcu, StartupSource(2)}) {
            for (const int category : {0, 1, 2, 3, 4}) {
                const StartupItem item{source, StartupCategory(category), {}, {}, {}, false};
                texts << startupSourceLabel(item) + u' ' + startupSourcePath(item);
            }
        }
        const QString run = uR"(\Software\Microsoft\Windows\CurrentVersion\Run|)"_s;
        const QString others =
            u"服务 Windows 服务 (自动启动)|计划任务 任务计划程序 (登录/开机触发)|"
            "Shell 扩展 Shell 扩展 (已批准)| |"_s;
        QCOMPARE(texts.join(u'|') + u'|',
                 u"系统 HKLM"_s + run + others + (u"用户 HKCU"_s + run + others).repeated(2));
    }
};

QTEST_GUILESS_MAIN(SystemRecordsTest)
#include "tst_system_records.moc"
