// Tests the verification of signatures on copies of this program: signed when it was built, by a
// certificate that nobody trusts, damaged, and not signed.
#include "platform/signatures.h"
#include "platform/windows/signatures/trust_verification.h"
#include "support/windows.h"

#include <array>
#include <atomic>
#include <thread>

using namespace korvane;
using namespace Qt::StringLiterals;

class TestWindowsSignatures : public QObject
{
    Q_OBJECT

    QTemporaryDir m_directory;
    const QString m_program = QCoreApplication::applicationFilePath();
    const QString m_signed = m_program.chopped(4) + u".signed.exe"_s;

    QString at(const QString& name) const { return m_directory.filePath(name); }

    QString written(const QString& name, const QByteArray& content) const
    {
        QFile file(at(name));
        QDir().mkpath(file.fileName().section(u'/', 0, -2));
        if (!file.open(QFile::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", qUtf8Printable(name));
        return file.fileName();
    }

private Q_SLOTS:
    void statuses()
    {
        QFile file(m_signed);
        QVERIFY(file.open(QFile::ReadOnly));
        QByteArray content = file.readAll();
        const QString farAway = u"中文 名/"_s + QString(200, u'x') + u'/' + QString(200, u'y');
        const QString copy = written(farAway + u"/copy.exe"_s, content);
        content[content.size() / 2] = char(content[content.size() / 2] ^ 1);
        const QString damaged = written(u"damaged.exe"_s, content);
        QFile busy(written(u"busy.exe"_s, content));
        QVERIFY(busy.open(QFile::ReadWrite));

        // Wine trusts a root that came with the file; Windows does not.
        const QString chain = test::isWine ? u"已签名 ✓"_s : u"签名无效"_s;
        const QString native = QDir::toNativeSeparators(m_signed);
        const QList<std::pair<QString, QString>> rows{
            {m_signed, chain + u"|Korvane 测试"_s},
            {copy, chain + u"|Korvane 测试"_s},
            {uR"(\\?\)"_s + native, chain + u"|Korvane 测试"_s},
            {damaged, u"签名无效|Korvane 测试"_s},
            {m_program, u"未签名|"_s},
            {written(u"text.txt"_s, "text"), u"未签名|"_s},
            {written(u"empty.exe"_s, ""), u"未签名|"_s},
            {written(u"cut.exe"_s, content.first(500)), u"未签名|"_s},
            {busy.fileName(), u"未知|"_s},
            {m_directory.path(), u"未知|"_s},
            {at(u"missing.exe"_s), u"未知|"_s},
            {uR"(\\.\)"_s + native, u"未知|"_s},
            {u"tst_windows_signatures.exe"_s, u"未知|"_s}};
        QJsonArray paths;
        QStringList expected;
        for (const auto& [path, answer] : rows) {
            paths.append(path);
            expected += path + u'|' + answer;
        }
        const QJsonObject asked{{u"paths"_s, paths}, {u"include_signer"_s, true}};
        const auto reply = test::Client().call(u"verify_signatures"_s, asked);
        QCOMPARE(reply.rows(u"results"_s, "path signature signer"), expected);
    }

    /// What no file here brings about.
    void results()
    {
        using windows_platform::statusOf;
        QCOMPARE(statusOf(CERT_E_UNTRUSTEDROOT, 0), SignatureStatus::Untrusted);
        // It may be built another day: a refusal would be kept for good.
        QCOMPARE(statusOf(CERT_E_CHAINING, 0), SignatureStatus::Unknown);
        const DWORD lastError = ERROR_LOCK_VIOLATION; // The file could not be read.
        QCOMPARE(statusOf(TRUST_E_NOSIGNATURE, lastError), SignatureStatus::Unknown);
    }

    void severalThreads()
    {
        const SignatureStatus expected = platform::verifySignature(m_signed);
        DWORD handlesBefore = 0;
        GetProcessHandleCount(GetCurrentProcess(), &handlesBefore);
        std::atomic<int> wrong = 0;
        const auto work = [&] {
            for (int turn = 0; turn < 3; ++turn)
                wrong += platform::verifySignature(m_signed) != expected ||
                         platform::verifySignature(m_program) != SignatureStatus::Unsigned ||
                         platform::signerName(m_signed) != u"Korvane 测试"_s;
        };
        {
            std::array<std::jthread, 8> threads;
            for (std::jthread& thread : threads)
                thread = std::jthread(work);
        }
        QCOMPARE(wrong.load(), 0);
        DWORD handles = 0;
        GetProcessHandleCount(GetCurrentProcess(), &handles);
        QVERIFY2(handles < handlesBefore + 30, "handles are left open");
    }
};

QTEST_GUILESS_MAIN(TestWindowsSignatures)
#include "tst_windows_signatures.moc"
