// Tests of the pipes by which programs of one user meet, and of what they tell of each other; and of
// the Run key.
#include "platform/local_channel.h"
#include "platform/peer.h"
#include "platform/session.h"
#include "platform/windows/sys/registry.h"
#include "platform/windows/sys/security.h"
#include "support/windows.h"

#include <QElapsedTimer>
#include <QRegularExpression>

#include <deque>

#include <aclapi.h>
#include <sddl.h>

using namespace korvane;
using namespace korvane::windows_platform;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using platform::PeerUser;

namespace {

const QString name = u"korvane-test-%1"_s.arg(GetCurrentProcessId());
const QString address = platform::localAddress(name);

/// A pipe as anybody may make one, for one client.
UniqueHandle strangePipe(const QString& security = {})
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!security.isEmpty())
        ConvertStringSecurityDescriptorToSecurityDescriptorW(wide(security), SDDL_REVISION_1,
                                                             &descriptor, nullptr);
    const UniqueLocal<void> content(descriptor);
    SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
    return owned(CreateNamedPipeW(wide(address), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 4096, 4096,
                                  0, &attributes));
}

UniqueHandle plainClient(const QString& path = address)
{
    return test::open(path, GENERIC_READ | GENERIC_WRITE, 0);
}

const test::Cases<QString, PeerUser> owners{
    {"own", ownUser()->sid, PeerUser::Own},
    {"the system", u"SY"_s, PeerUser::System},
    {"administrators", u"BA"_s, PeerUser::System},
    {"a stranger", u"S-1-5-21-1-2-3-1234"_s, PeerUser::Other},
    {"everyone", u"WD"_s, PeerUser::Other},
    {"own, in a sandbox", ownUser()->sid + u"S:(ML;;NW;;;LW)"_s, PeerUser::Other},
};

} // namespace

class WindowsPeerTest : public QObject
{
    Q_OBJECT

    std::deque<std::unique_ptr<QLocalSocket>> m_taken;
    std::unique_ptr<platform::LocalListener> m_listener;
    QString m_error;

private Q_SLOTS:
    void init()
    {
        m_listener = platform::listenLocally(
            name, [this](auto socket) { m_taken.push_back(std::move(socket)); }, m_error);
        QVERIFY2(m_listener, qPrintable(m_error));
    }
    void cleanup()
    {
        m_listener.reset();
        m_taken.clear();
    }

    void bothEndsTellWhoIsThere()
    {
        QProcess other;
        other.start(QCoreApplication::applicationFilePath(), {u"--connect"_s, name});
        QTRY_COMPARE(m_taken.size(), 1U);
        const auto asker = platform::peerOf(m_taken[0]->socketDescriptor());
        QVERIFY(asker && asker->user == PeerUser::Own);
        QCOMPARE(asker->userId, ownUser()->sid);
        QCOMPARE(qint64(asker->pid), other.processId());
        QVERIFY(platform::isSamePath(asker->executable, QCoreApplication::applicationFilePath()));
        QVERIFY(other.waitForFinished()); // Having found the same of this end.
        QCOMPARE(other.exitCode(), int(GetCurrentProcessId() & 0x7f));
        QVERIFY(!platform::isStillConnected(*m_taken[0])); // Nor can it be told who that was.
        QVERIFY(!platform::peerOf(m_taken[0]->socketDescriptor()) && !platform::peerOf(-1));
        const UniqueHandle file = plainClient(QCoreApplication::applicationFilePath());
        QVERIFY(!platform::peerOf(reinterpret_cast<qintptr>(file.get())));
    }

    void whoeverOwnsThePipe_data() { test::addRows(owners); }
    void whoeverOwnsThePipe()
    {
        const auto& [tag, owner, user] = test::currentRow(owners);
        m_listener.reset();
        const UniqueHandle pipe = strangePipe(u"D:(A;;GA;;;WD)O:"_s + owner);
        if (!pipe)
            QSKIP("Only an administrator may hand things over: so on Windows, not in Wine.");
        const auto client = platform::connectLocally(name, 0ms);
        QVERIFY(client.socket);
        const auto peer = platform::peerOf(client.socket->socketDescriptor());
        QVERIFY(peer && peer->user == user);
        QCOMPARE(peer->pid, quint32(GetCurrentProcessId()));
    }

    void theNameIsTakenOnce()
    {
        QVERIFY(platform::connectLocally(name, 0ms).socket);
        m_listener.reset();
        QVERIFY(platform::connectLocally(name, 1s).isNobodyThere);
        const UniqueHandle squatter = strangePipe();
        const auto first = platform::connectLocally(name, 0ms);
        QElapsedTimer timer;
        timer.start();
        const auto second = platform::connectLocally(name, 300ms); // All it has is in use.
        QVERIFY(first.socket && !second.socket && !second.isNobodyThere);
        QVERIFY(timer.elapsed() >= 295 && timer.elapsed() < 3000);
        if (test::isWine)
            QSKIP("Wine takes no notice of FILE_FLAG_FIRST_PIPE_INSTANCE.");
        QVERIFY(!platform::listenLocally(name, {}, m_error) && !m_error.isEmpty());
    }

    void itsOwnUserAlone()
    {
        const UniqueHandle client = plainClient();
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        constexpr SECURITY_INFORMATION parts =
            OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
        QCOMPARE(GetSecurityInfo(client.get(), SE_KERNEL_OBJECT, parts, nullptr, nullptr, nullptr,
                                 nullptr, &descriptor),
                 DWORD(ERROR_SUCCESS));
        const UniqueLocal<void> content(descriptor);
        wchar_t* text = nullptr;
        ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, parts,
                                                             &text, nullptr);
        const UniqueLocal<wchar_t> owner(text);
        const QRegularExpression rules(
            uR"(^O:%1D:P\(D;[^)]*;;;NU\)\(A;[^)]*;;;%1\)$)"_s.arg(ownUser()->sid));
        QVERIFY2(rules.match(fromWide(text)).hasMatch(), qPrintable(fromWide(text)));
        QVERIFY(!plainClient(u"\\\\127.0.0.1\\pipe\\"_s + name)); // Wine knows no such way at all.
    }

    void whoListensCannotActAsTheClient()
    {
        m_listener.reset();
        const UniqueHandle pipe = strangePipe();
        const auto client = platform::connectLocally(name, 0ms);
        client.socket->write("x");
        QVERIFY(client.socket->waitForBytesWritten(1000) || client.socket->bytesToWrite() == 0);
        char content = 0;
        DWORD read = 0;
        QVERIFY(ReadFile(pipe.get(), &content, 1, &read, nullptr) != FALSE);
        QVERIFY(ImpersonateNamedPipeClient(pipe.get()) != FALSE);
        HANDLE token = nullptr;
        const BOOL isOpen = OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token);
        RevertToSelf();
        const UniqueHandle owner(token);
        SECURITY_IMPERSONATION_LEVEL level{};
        QVERIFY(isOpen != FALSE && GetTokenInformation(token, TokenImpersonationLevel, &level,
                                                       sizeof level, &read) != FALSE);
        if (test::isWine && level == SecurityImpersonation)
            QSKIP("Wine knows one level alone.");
        QCOMPARE(int(level), int(SecurityIdentification));
    }

    void manyAtOnce()
    {
        std::vector<UniqueHandle> clients;
        for (int round = 0; round < 3; ++round) {
            while (clients.size() < 120)
                clients.push_back(plainClient());
            QVERIFY(std::all_of(clients.begin(), clients.end(), [](const auto& c) { return !!c; }));
            clients.resize(round == 0 ? 0 : 100); // Some leave before anybody has looked.
            QTest::qWait(50);
            QTRY_VERIFY(m_listener->isReachable() && m_taken.size() >= clients.size());
        }
    }

    void theLastWordIsHeard()
    {
        const UniqueHandle client = plainClient();
        QTRY_COMPARE(m_taken.size(), 1U);
        const QByteArray answer(50'000, 'x');
        QVERIFY(platform::sendAndEnd(std::move(m_taken[0]), answer));
        QTest::qWait(100); // It is not in a hurry to read.
        QByteArray heard(answer.size(), ' ');
        DWORD read = 0;
        QVERIFY(ReadFile(client.get(), heard.data(), DWORD(heard.size()), &read, nullptr) != FALSE);
        QCOMPARE(heard.first(read), answer);
        auto gone = plainClient();
        QTRY_COMPARE(m_taken.size(), 2U);
        QVERIFY(platform::isStillConnected(*m_taken[1]));
        gone.reset();
        QVERIFY(!platform::sendAndEnd(std::move(m_taken[1]), answer));
    }

    void startingWithTheSession()
    {
        const QString place = uR"(Software\Microsoft\Windows\CurrentVersion\)"_s;
        const QString program = QCoreApplication::applicationName();
        QVERIFY(platform::setStartsWithSession(false).ok && !platform::startsWithSession());
        QVERIFY(platform::setStartsWithSession(true).ok && platform::startsWithSession());
        QCOMPARE(RegistryKey(HKEY_CURRENT_USER, place + u"Run"_s).text(program),
                 u"\"%1\" --background"_s.arg(
                     QDir::toNativeSeparators(QCoreApplication::applicationFilePath())));
        const auto approved = RegistryKey::make(
            HKEY_CURRENT_USER, place + uR"(Explorer\StartupApproved\Run)"_s, KEY_SET_VALUE);
        for (const int state : {2, 3}) { // As people switch it on and off in the system's own list.
            QCOMPARE(approved.setBytes(program, char(state) + QByteArray(11, '\0')), ERROR_SUCCESS);
            QCOMPARE(platform::startsWithSession(), state == 2);
        }
        QVERIFY(platform::setStartsWithSession(true).ok && platform::startsWithSession());
        QVERIFY(platform::setStartsWithSession(false).ok && !platform::startsWithSession());
    }
};

int main(int argc, char* argv[])
{
    const QCoreApplication application(argc, argv);
    if (argc == 3 && qstrcmp(argv[1], "--connect") == 0) {
        const auto connection = platform::connectLocally(QString::fromLocal8Bit(argv[2]), 3s);
        const qintptr descriptor = connection.socket ? connection.socket->socketDescriptor() : -1;
        const auto peer = platform::peerOf(descriptor);
        QTest::qSleep(500);
        return peer && peer->user == PeerUser::Own ? int(peer->pid & 0x7f) : -1;
    }
    WindowsPeerTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_windows_peer.moc"
