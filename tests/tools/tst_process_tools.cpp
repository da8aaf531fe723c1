// Tests of the process tools as a client sees them, on scripted process lists.
#include "core/process_tree.h"
#include "core/processes.h"
#include "core/signatures.h"
#include "fake/fake_platform.h"
#include "support/mcp_client.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTest>

#include <algorithm>
#include <functional>

using namespace korvane;
using namespace Qt::StringLiterals;

using Processes = QList<ProcessSnapshot>;

class ProcessToolsTest : public QObject
{
    Q_OBJECT

    test::Client m_client;
    fake::Platform& m_script = fake::platform();
    Processes& m_processes = m_script.processes.records;

    test::ToolReply tree() { return m_client.call(u"get_process_tree"_s); }
    test::ToolReply list() { return m_client.call(u"list_processes"_s); }

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

private Q_SLOTS:
    void init()
    {
        fake::reset();
        Singleton<ProcessService>::instance().listAllProcesses(); // Forgets all samples.
        fake::reset();
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
    }

    void listingAfterATreeWaitsUntilItCanMeasure()
    {
        makeChain(1);
        QElapsedTimer timer;
        timer.start();
        tree();
        list();
        QVERIFY(timer.elapsed() >= 199 && m_script.processes.calls == 2);
    }

    void listing()
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
        QStringList labels;
        for (const auto& object : objects)
            labels.append(object["signature"_L1].toString());
        QCOMPARE(labels.join(u'|'),
                 u"已签名 ✓|已签名 ✓|签名无效|未签名|未签名|未签名|未知||—|未知"_s);
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
        QCOMPARE(list().json().value("processes"_L1), QJsonValue(QJsonArray()));
        QCOMPARE(tree().text, QString::fromUtf8(plainTree()));
        m_script.processes.error = u"读不到"_s;
        QCOMPARE(list().text, u"Tool 'list_processes' failed: 读不到"_s);
        QCOMPARE(tree().text, u"Tool 'get_process_tree' failed: 读不到"_s);
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
        // The argument => the PID that the platform was asked for: the answer. 4294967303 is 7 in
        // 32 bits.
        const QString rows =
            u"7 => 7: 7,x 名,|`7` => 7: 7,x 名,|6.6 => 7: 7,x 名,|8 => 8: 8,,NOTE|"
            "4294967295 => 4294967295: 4294967295,,NOTE|4294967303 => : 4294967303,,NOTE|"
            "0 => : REFUSED|-5 => : REFUSED|`abc` => : REFUSED|[7] => : REFUSED"_s
                .replace(u"NOTE"_s, u"读取失败 — 可能是受保护进程/系统进程/已退出, "
                                    "或 32 位进程在 64 位下不可跨位读"_s)
                .replace(u"REFUSED"_s, u"Tool 'get_process_command_line' failed: "
                                       "参数 pid 缺失或非法 — 必须是正整数"_s);
        for (const QString& row : rows.split(u'|')) {
            fake::reset();
            m_script.commandLines.insert(7, u"x 名"_s);
            const QString input = row.left(row.indexOf(u" => "_s));
            const QJsonObject args = test::json(u"{`pid`:%1}"_s.arg(input));
            const auto reply = m_client.call(u"get_process_command_line"_s, args);
            const QJsonObject result = reply.json();
            const QString answer = QString::number(result["pid"_L1].toInteger()) + u',' +
                                   result["command_line"_L1].toString() + u',' +
                                   result["note"_L1].toString();
            QString asked;
            for (const quint32 pid : m_script.commandLinesAsked)
                asked += QString::number(pid);
            QCOMPARE(u"%1 => %2: %3"_s.arg(input, asked, reply.isError ? reply.text : answer), row);
        }
        QVERIFY(m_client.call(u"get_process_command_line"_s).isError);
    }
};

QTEST_GUILESS_MAIN(ProcessToolsTest)
#include "tst_process_tools.moc"
