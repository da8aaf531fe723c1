// Tests of the file-unlock service: the signal forms, and ending processes in a batch.
#include "core/file_unlock.h"
#include "fake/fake_platform.h"

#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class FileUnlockServiceTest : public QObject
{
    Q_OBJECT

    using Service = FileUnlockService;

    Service& m_service = Singleton<Service>::instance();
    fake::Platform& m_script = fake::platform();
    QStringList m_heard;

private Q_SLOTS:
    void initTestCase()
    {
        connect(&m_service, &Service::queryFailed, this,
                [this](const QString& reason) { m_heard.append(reason); });
        connect(&m_service, &Service::queryFinished, this, [this](const auto& processes) {
            for (const ProcessInfo& process : processes)
                m_heard.append(QString::number(process.pid));
        });
        connect(&m_service, &Service::operationLog, this,
                [this](const QString& message, Service::OpLevel level) {
                    m_heard.append(QString::number(int(level)) + message);
                });
    }

    void init()
    {
        fake::reset();
        m_heard.clear();
    }

    void signalForms()
    {
        QVERIFY(QMetaType::fromName("QList<korvane::ProcessInfo>").isValid());
        m_script.lockers.processes = {{7, {}, {}, {}, 0}, {5, {}, {}, {}, 0}};
        m_service.query({u"old"_s});
        m_script.lockers = {false, u"不行"_s, {}};
        m_service.query({u"a"_s, u"b"_s});
        for (const bool ok : {true, false}) {
            m_script.writeResult = {ok, u"关闭"_s};
            m_service.closeHandles();
        }
        QCOMPARE(m_heard.join(u'|'), u"7|5|不行|0关闭|2关闭"_s);
        QCOMPARE(m_script.writes.join(u'|'), u"closeHandles a b|closeHandles a b"_s);
    }

    void batches()
    {
        m_service.killProcesses({});
        m_service.killProcesses({3, 4294967295, 2});
        m_script.writeResults.insert(u"killProcess 3"_s, {false, u"不行"_s});
        m_service.killProcesses({3, 2, 1});
        QCOMPARE(m_heard.join(u'|'), u"0批量杀进程完成:成功 3 / 失败 0|"
                                     "1不行|1批量杀进程完成:成功 2 / 失败 1"_s);
        QCOMPARE(m_script.writes.join(u'|').remove(u"killProcess "_s), u"3|4294967295|2|3|2|1"_s);
    }
};

QTEST_GUILESS_MAIN(FileUnlockServiceTest)
#include "tst_file_unlock_service.moc"
