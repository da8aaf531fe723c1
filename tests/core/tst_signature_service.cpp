// Tests of the signature service's two caches, within a process, across two, and from threads.
#include "core/signatures.h"
#include "fake/fake_platform.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <thread>

using namespace korvane;
using namespace Qt::StringLiterals;

using Status = SignatureStatus;

/// Where settings and files live; the second process is told by this variable.
constexpr const char* directory = "KORVANE_TEST_DIRECTORY";

/// Tells the second process "STATUS CALLS": what it has to find, after how many verifications.
constexpr const char* expected = "KORVANE_TEST_EXPECTED";

class SignatureServiceTest : public QObject
{
    Q_OBJECT

    SignatureService* m_service = nullptr;
    fake::Platform& m_script = fake::platform();
    QTemporaryDir m_directory;

    static QString at(const QString& name) { return qEnvironmentVariable(directory) + u'/' + name; }

    /// A file last modified at `seconds` since the epoch.
    static QString file(const QString& name, qint64 seconds = 1700000000)
    {
        QFile made(at(name));
        const auto time = QDateTime::fromSecsSinceEpoch(seconds);
        if (!made.open(QFile::WriteOnly) || !made.setFileTime(time, QFile::FileModificationTime))
            qFatal("cannot make %s", qPrintable(made.fileName()));
        return made.fileName();
    }

    static QString key(const QString& path)
    {
        const QByteArray digest = QCryptographicHash::hash(path.toUtf8(), QCryptographicHash::Sha1);
        return u"sigcache/"_s + QString::fromLatin1(digest.toHex());
    }

    static void runSecondProcess(const QByteArray& expectation)
    {
        qputenv(expected, expectation);
        const QString program = QCoreApplication::applicationFilePath();
        QCOMPARE(QProcess::execute(program, {u"-silent"_s, u"otherProcesses"_s}), 0);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (!qEnvironmentVariableIsSet(directory))
            qputenv(directory, m_directory.path().toUtf8());
        QCoreApplication::setOrganizationName(u"Korvane"_s);
        QCoreApplication::setApplicationName(u"tst_signature_service"_s);
        QSettings::setDefaultFormat(QSettings::IniFormat);
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, at(u"settings"_s));
        m_service = &Singleton<SignatureService>::instance();
    }

    void init()
    {
        fake::reset();
        m_service->clearCache();
    }

    void lookUps_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<Status>("status");
        QTest::addColumn<QString>("record");
        // clang-format off
        QTest::newRow("trusted") << file(u"签名 %1"_s) << Status::Trusted << u"1700000000000|1"_s;
        QTest::newRow("untrusted") << file(u"a"_s) << Status::Untrusted << u"1700000000000|2"_s;
        QTest::newRow("unsigned") << at(u"./a"_s) << Status::Unsigned << u"1700000000000|3"_s;
        QTest::newRow("unknown") << file(u"b"_s) << Status::Unknown << QString();
        QTest::newRow("no file") << at(u"absent"_s) << Status::Trusted << QString();
        QTest::newRow("no time") << file(u"epoch"_s, 0) << Status::Trusted << QString();
        // clang-format on
    }

    void lookUps()
    {
        QFETCH(QString, path);
        QFETCH(Status, status);
        QFETCH(QString, record);
        m_script.signatures.insert(path, status);
        const QStringList once{path};
        for (const QStringList& verified : {once, record.isEmpty() ? once + once : once}) {
            QCOMPARE(m_service->cached(path), Status::Unchecked);
            QCOMPARE(m_service->verify(path), status);
            QCOMPARE(m_service->verify(path), status);
            QCOMPARE(m_service->cached(path), status);
            QCOMPARE(m_service->cacheSize(), 1);
            QCOMPARE(m_script.verified, verified);
            QCOMPARE(QSettings().value(key(path)).toString(), record);
            m_service->clearCache();
            QCOMPARE(m_service->cacheSize(), 0);
        }
    }

    void signersAndTheEmptyPath()
    {
        m_script.signers.insert(u"/a"_s, u"签名者"_s);
        for (const QString& path : {u"/a"_s, u"/b"_s, QString()}) {
            QCOMPARE(m_service->cachedSigner(path), QString());
            for (int i = 0; i < 2; ++i)
                QCOMPARE(m_service->signerName(path), m_script.signers.value(path));
            QCOMPARE(m_service->cachedSigner(path), m_script.signers.value(path));
        }
        QCOMPARE(m_script.signersAsked.join(u' '), u"/a /b"_s);
        m_service->clearCache();
        QCOMPARE(m_service->cachedSigner(u"/a"_s), QString());

        QCOMPARE(m_service->verify({}), Status::Unknown);
        QCOMPARE(m_service->cached({}), Status::Unknown);
        QCOMPARE(m_service->cacheSize(), 0);
        QVERIFY(m_script.verified.isEmpty());
    }

    void damagedRecords()
    {
        const QString path = file(u"recorded"_s);
        const auto statusBy = [&](const QString& record) {
            QSettings().setValue(key(path), record);
            m_service->clearCache();
            return m_service->verify(path);
        };
        m_script.signatures.insert(path, Status::Untrusted);
        for (const bool canVerify : {false, true}) {
            m_script.canVerify = canVerify;
            QCOMPARE(statusBy(u"1700000000000|1"_s), Status::Trusted);
            QCOMPARE(statusBy(u"1700000000000|4"_s), Status::Unknown);
        }
        QVERIFY(m_script.verified.isEmpty());
        for (const char* record :
             {"", "1700000000000", "|3", "1700000000000|", "1700000000000|abc", "1700000000000|0",
              "1700000000000|5", "1700000000000|-1", "1700000000000|4294967297",
              "1700000000000|1|1", "1700000000000x|1", "1700000000001|1"}) {
            m_script.verified.clear();
            QVERIFY2(statusBy(QString::fromLatin1(record)) == Status::Untrusted, record);
            QVERIFY2(m_script.verified.size() == 1, record);
            QCOMPARE(QSettings().value(key(path)).toString(), u"1700000000000|2"_s);
        }
    }

    void threadsAgree()
    {
        constexpr int files = 6;
        const auto statusOf = [](int i) { return Status(1 + i % 3); };
        for (int i = 0; i < files; ++i) {
            m_script.signatures.insert(at(QString::number(i)), statusOf(i));
            m_service->verify(file(QString::number(i)));
        }
        std::atomic<int> wrong = 0;
        const auto work = [&](bool clears) {
            for (int round = 0; round < 40000; ++round) {
                const QString path = at(QString::number(round % files));
                const Status cached = m_service->cached(path);
                const bool right = cached == statusOf(round % files) || cached == Status::Unchecked;
                if (!right || m_service->verify(path) != statusOf(round % files))
                    ++wrong;
                if (clears)
                    m_service->clearCache();
            }
        };
        std::thread first(work, true), second(work, false), third(work, false);
        for (std::thread* thread : {&first, &second, &third})
            thread->join();
        QCOMPARE(wrong.load(), 0);
        QCOMPARE(m_script.verified.size(), files); // Records serve what memory lost.
    }

    // Last: under the thread sanitizer a process that has started another can start no thread.
    void otherProcesses()
    {
        const QString path = at(u"shared"_s);
        if (const QByteArray found = qgetenv(expected); !found.isEmpty()) {
            m_script.signatures.insert(path, Status::Unsigned);
            const QByteArray status = QByteArray::number(int(m_service->verify(path)));
            QCOMPARE(status + ' ' + QByteArray::number(m_script.verified.size()), found);
            return;
        }
        m_script.signatures.insert(path, Status::Trusted);
        m_service->verify(file(u"shared"_s));
        m_service->flushPersistent();
        runSecondProcess("1 0");
        file(u"shared"_s, 1700000001);
        QCOMPARE(m_service->verify(path), Status::Trusted); // Memory stands until it is cleared.
        runSecondProcess("3 1");
        runSecondProcess("3 0");
    }
};

QTEST_GUILESS_MAIN(SignatureServiceTest)
#include "tst_signature_service.moc"
