// Tests of the signature service's two caches, within a process, across two, and from threads.
#include "core/signatures.h"
#include "fake/fake_platform.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <thread>

using namespace korvane;
using namespace Qt::StringLiterals;

using Status = SignatureStatus;

class SignatureServiceTest : public QObject
{
    Q_OBJECT

    SignatureService* m_service = nullptr;
    fake::Platform& m_script = fake::platform();
    QTemporaryDir m_directory;

    QString at(const QString& name) const { return m_directory.filePath(name); }

    /// A file last modified at `seconds` since the epoch.
    QString file(const QString& name, qint64 seconds = 1700000000) const
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

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_directory.isValid()); // Nothing is to be written elsewhere.
        QCoreApplication::setOrganizationName(u"Korvane"_s);
        QSettings::setDefaultFormat(QSettings::IniFormat);
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, at(u"settings"_s));
        m_service = &Singleton<SignatureService>::instance();
    }

    void init()
    {
        fake::reset();
        m_service->clearCache();
    }

    void lookUps()
    {
        // The record is of the time and the status, where both are known.
        const auto check = [this](const QString& path, Status status, const QString& record) {
            m_script.signatures.insert(path, status);
            m_script.verified.clear();
            const QStringList once{path};
            for (const QStringList& verified : {once, record.isEmpty() ? once + once : once}) {
                QCOMPARE(m_service->cached(path), Status::Unchecked);
                for (int i = 0; i < 2; ++i)
                    QCOMPARE(m_service->verify(path), status);
                QCOMPARE(m_service->cached(path), status);
                QCOMPARE(m_service->cacheSize(), 1);
                QCOMPARE(m_script.verified, verified);
                QCOMPARE(QSettings().value(key(path)).toString(), record);
                m_service->clearCache();
                QCOMPARE(m_service->cacheSize(), 0);
            }
        };
        check(file(u"签名 %1"_s), Status::Trusted, u"1700000000000|1"_s);
        check(file(u"a"_s), Status::Untrusted, u"1700000000000|2"_s);
        check(at(u"./a"_s), Status::Unsigned, u"1700000000000|3"_s);
        check(file(u"b"_s), Status::Unknown, {});
        check(at(u"absent"_s), Status::Trusted, {});
        check(file(u"epoch"_s, 0), Status::Trusted, {});
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
};

QTEST_GUILESS_MAIN(SignatureServiceTest)
#include "tst_signature_service.moc"
