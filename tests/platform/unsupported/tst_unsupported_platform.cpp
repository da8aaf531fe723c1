// Tests what every operation of the platform layer answers where there is no back end.
#include "platform/desktop.h"
#include "platform/file_holders.h"
#include "platform/metrics.h"
#include "platform/network.h"
#include "platform/notification.h"
#include "platform/peer.h"
#include "platform/processes.h"
#include "platform/recycle_bin.h"
#include "platform/services.h"
#include "platform/session.h"
#include "platform/signatures.h"
#include "platform/software.h"
#include "platform/startup.h"
#include "support/json.h"

#include <QTest>

#include <array>
#include <bit>

using namespace korvane;
using namespace Qt::StringLiterals;

class TestUnsupportedPlatform : public QObject
{
    Q_OBJECT

    /// What the operations answer, and what the program then writes to its default log.
    static inline QString said;

    static void keepLogged(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        if (type == QtInfoMsg && QByteArrayView(context.category) == "default")
            said += text + u'\n';
    }

private Q_SLOTS:
    void answers()
    {
        ProcessCpuTable cpuTable;
        ShownProcesses shown;
        QStringList names;
        QList<platform::HeldFile> held;
        QString error;
        const auto hear = [&error](const auto& records) {
            said += (records.isEmpty() ? std::exchange(error, {}) : u"records"_s) + u'\n';
        };
        const auto previous = qInstallMessageHandler(keepLogged);
        for (int i = 0; i < 2; ++i) { // The log tells it the first time alone.
            hear(platform::listProcesses(cpuTable, shown, &error));
            hear(platform::listRunItems(&error));
            hear(platform::listScheduledTasks(&error));
            hear(platform::listShellExtensions(&error));
            hear(platform::listConnections(shown, &error));
            hear(platform::listSoftware(&error));
            hear(platform::listServices(names, &error));
            said += QString::number(int(platform::verifySignature({}))) + u'\n';
        }
        qInstallMessageHandler(previous);
        const LockerProbe probe = platform::findFileHolders({}, held);
        for (const OpResult& result :
             {platform::startService({}, {}), platform::stopService({}, {}),
              platform::setServiceEnabled({}, true, {}), platform::setServiceStartType({}, {}, {}),
              platform::setRunItemEnabled({}, {}, true), platform::uninstallSoftware({}),
              platform::moveToRecycleBin({}), platform::closeHeldFiles(held),
              platform::endProcess(1, shown), platform::scheduleDeleteOnReboot({}),
              platform::setStartsWithSession(true), OpResult{probe.ok, probe.error}})
            said += (result.ok ? u"done"_s : result.message) + u'\n';
        QVERIFY(test::isAgreedOn(
            said, "d0ebd43e9618f5fea5e85869afc6ee554a7b8e8d094e476c8b6527d9bbc0457e"));
    }

    void otherOperationsAnswerEmptyHanded()
    {
        QVERIFY(platform::listSoftware(nullptr).isEmpty()); // where nobody asks why
        const QString path = QCoreApplication::applicationFilePath();
        QCOMPARE(platform::servicesDependingOn(path) + platform::servicesNeededBy(path),
                 QStringList());
        QCOMPARE(platform::processCommandLine(1) + platform::signerName(path), QString());
        QVERIFY(platform::processAndAncestors(1).isEmpty() && !platform::startsWithSession());
        QVERIFY(platform::peerOf(-1)->user == platform::PeerUser::Own);
        QVERIFY(!platform::showNotification(path, path));
        QVERIFY(!platform::setKeepAwake(true) && !platform::emptyRecycleBin());
        QVERIFY(!platform::removeMarkOfTheWeb(path) && !platform::canVerifySignatures());
        QCOMPARE(platform::toggleForegroundWindowTopmost(), -1);
        using Words = std::array<quint64, 12>;
        using Sample = void (*)(SystemMetrics&);
        for (const Sample sample :
             {Sample(platform::sampleSystemMetrics), Sample(platform::sampleMemoryOnly)}) {
            SystemMetrics metrics{9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
            sample(metrics);
            QVERIFY(std::bit_cast<Words>(metrics) == Words{});
        }
    }
};

QTEST_GUILESS_MAIN(TestUnsupportedPlatform)
#include "tst_unsupported_platform.moc"
