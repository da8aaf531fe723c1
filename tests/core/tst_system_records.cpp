// Tests of the records' display texts and label tables, at the borders of their ranges.
#include "core/system_records.h"
#include "support/json.h"

#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class SystemRecordsTest : public QObject
{
    Q_OBJECT

    QStringList m_texts;

    /// Takes down what `display` makes of the values, in one line.
    template <typename Value = quint32, typename Display>
    void show(const QList<qint64>& values, const Display& display)
    {
        QStringList texts;
        for (const qint64 value : values)
            texts.append(display(static_cast<Value>(value)));
        m_texts.append(texts.join(u'|'));
    }

    /// The same of the values from `first` to `last`.
    template <typename Value = quint32, typename Display>
    void showAll(qint64 first, qint64 last, const Display& display)
    {
        QList<qint64> values;
        for (qint64 value = first; value <= last; ++value)
            values.append(value);
        show<Value>(values, display);
    }

private Q_SLOTS:
    void texts()
    {
        show<qint64>({-1, 0, 1, 52428800, 104857599, 104857600, 1610612736}, [](qint64 bytes) {
            return ProcessSnapshot{.memoryBytes = bytes}.memoryDisplay();
        });
        show<qint64>({-1, 0, 1246, 10000}, [](qint64 value) {
            return ProcessSnapshot{.cpuPercent = double(value) / 100}.cpuDisplay();
        });
        show<qint64>(
            {-1, 0, 1, 2048, 102399, 102400, 512000, 1048575, 1048576, 3145728},
            [](qint64 kib) { return UninstallEntry{.estimatedSizeKb = kib}.sizeDisplay(); });
        for (const quint32 protocol : {0U, 1U}) {
            for (const quint32 family : {0U, 1U, 2U}) {
                show({1, 4}, [&](quint32 state) {
                    const NetConnection c{protocol, family, u"f::%2"_s, 443, u"g"_s,
                                          65535,    state,  0,          {}};
                    return QStringList{c.localEndpoint(), c.remoteEndpoint(), stateLabel(c)}.join(
                        u' ');
                });
            }
        }
        showAll(0, 2, protocolLabel);
        showAll(0, 2, familyLabel);
        showAll(0, 6, tcpStateLabel);
        showAll(7, 13, tcpStateLabel);
        showAll<ServiceState>(-1, 8, serviceStateLabel);
        showAll<ServiceStartType>(-1, 7, serviceStartTypeLabel);
        showAll(0, 3, uninstallSourceLabel);
        showAll<StartupSource>(0, 2, startupSourceKey);
        StartupItem item;
        for (const int category : {0, 1, 2, 3, 4}) {
            item.category = StartupCategory(category);
            showAll<StartupSource>(0, category == 0 ? 2 : 0, [&item](StartupSource source) {
                item.source = source;
                return startupSourceLabel(item) + u' ' + startupSourcePath(item);
            });
        }
        const QString run = uR"(Software\Microsoft\Windows\CurrentVersion\Run)"_s;
        QCOMPARE(m_texts.takeLast(), u" "_s); // Of a category that there is not.
        QCOMPARE(m_texts, test::rows(R"(
            —|—|0.0 MB|50.0 MB|100.0 MB|100 MB|1536 MB
            —|0.0%|12.5%|100.0%
            —|—|0.0 MB|2.0 MB|100.0 MB|100 MB|500 MB|1024 MB|1.00 GB|3.00 GB
            f::%2:443 — 监听中|f::%2:443 g:65535 已建立
            [f::%2]:443 — 监听中|[f::%2]:443 [g]:65535 已建立
            f::%2:443 — 监听中|f::%2:443 g:65535 已建立
            f::%2:443 — —|f::%2:443 — —
            [f::%2]:443 — —|[f::%2]:443 — —
            f::%2:443 — —|f::%2:443 — —
            TCP|UDP|UDP
            IPv4|IPv6|IPv4
            已关闭|监听中|SYN_SENT|SYN_RCVD|已建立|FIN_WAIT_1|FIN_WAIT_2
            CLOSE_WAIT|CLOSING|LAST_ACK|TIME_WAIT|DELETE_TCB|UNKNOWN|
            |已停止|启动中…|停止中…|运行中|恢复中…|暂停中…|已暂停|未知|
            |引导|系统|自动|自动(延迟)|手动|已禁用|未知|
            系统 64|系统 32|用户|
            hklm|hkcu|hkcu
            系统 HKLM\RUN|用户 HKCU\RUN|用户 HKCU\RUN
            服务 Windows 服务 (自动启动)
            计划任务 任务计划程序 (登录/开机触发)
            Shell 扩展 Shell 扩展 (已批准))")
                              .replaceInStrings(u"RUN"_s, run));
    }
};

QTEST_GUILESS_MAIN(SystemRecordsTest)
#include "tst_system_records.moc"
