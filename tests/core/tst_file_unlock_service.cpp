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
    QString m_heard;
    int m_failures = 0; ///< How many of the next operations fail.

    void hear(const QString& text) { m_heard += text + u'|'; }
    void hearLog(const QString& message, Service::OpLevel level)
    {
        hear(QString::number(int(level)) + message);
        m_script.writeResult.ok = --m_failures <= 0;
    }
    void hearProcesses(const QList<ProcessInfo>& processes)
    {
        for (const ProcessInfo& process : processes)
            hear(QString::number(process.pid));
    }

private Q_SLOTS:
    void initTestCase()
    {
        connect(&m_service, &Service::queryFailed, this, &FileUnlockServiceTest::hear);
        connect(&m_service, &Service::queryFinished, this, &FileUnlockServiceTest::hearProcesses);
        connect(&m_service, &Service::operationLog, this, &FileUnlockServiceTest::hearLog);
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
        QCOMPARE(m_heard, u"7|5|不行|0关闭|2关闭|"_s);
        QCOMPARE(m_script.writes.join(u'|'), u"closeHandles a b|closeHandles a b"_s);
    }

    void batches_data()
    {
        QTest::addColumn<int>("failures"); // The first of three processes cannot be ended.
        QTest::addColumn<QString>("heard");
        QTest::newRow("none") << 0 << u"0批量杀进程完成:成功 3 / 失败 0|"_s;
        QTest::newRow("one") << 1 << u"1不行|1批量杀进程完成:成功 2 / 失败 1|"_s;
        QTest::newRow("all") << 3 << u"1不行|1不行|1不行|1批量杀进程完成:成功 0 / 失败 3|"_s;
    }

    void batches()
    {
        QFETCH(int, failures);
        fake::reset();
        m_heard.clear();
        m_failures = failures;
        m_script.writeResult = {failures == 0, u"不行"_s};
        m_service.killProcesses({});
        m_service.killProcesses({3, 4294967295, 2});
        QTEST(m_heard, "heard");
        QCOMPARE(m_script.writes.join(u'|'),
                 u"killProcess 3|killProcess 4294967295|killProcess 2"_s);
    }
};

QTEST_GUILESS_MAIN(FileUnlockServiceTest)
#include "tst_file_unlock_service.moc"
