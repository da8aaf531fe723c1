// Tests who may answer for the user, on real sockets of this and of another user.
#include "platform/linux/sys/proc_fs.h"
#include "platform/platform.h"
#include "support/child_process.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>

using namespace korvane;
using linux_platform::UniqueFd;

namespace {

constexpr uid_t stranger = 1234;
constexpr uid_t overflowUser = 65534; ///< As whom the kernel shows users without a mapping.
constexpr int refused = 77;           ///< Exit code where this machine refuses a namespace.

/// A user namespace with that mapping, where the machine lets the test make one.
UniqueFd userNamespace(const QByteArray& mapping)
{
    const test::Child inside([] { ::unshare(CLONE_NEWUSER); });
    const QString process = QStringLiteral("/proc/%1/").arg(inside.pid());
    QFile map(process + QStringLiteral("uid_map"));
    if (!mapping.isEmpty() &&
        !(map.open(QFile::WriteOnly | QFile::Unbuffered) && map.write(mapping) > 0))
        return UniqueFd();
    const QByteArray path = QFile::encodeName(process + QStringLiteral("ns/user"));
    return UniqueFd(::open(path.constData(), O_RDONLY | O_CLOEXEC));
}

} // namespace

class TestConsentPeer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void peers_data()
    {
        QTest::addColumn<uint>("listener");
        QTest::addColumn<QByteArray>("sudoUid");
        QTest::addColumn<bool>("mayAnswer");
        QTest::addColumn<QByteArray>("mapping"); // Of the namespace that asks; null for this one.
        const QByteArray here;
        const uint self = ::geteuid();
        QTest::newRow("the same user") << self << QByteArray() << true << here;
        QTest::newRow("a stranger") << stranger << QByteArray() << false << here;
        QTest::newRow("a stranger beside sudo") << stranger << QByteArray("1000") << false << here;
        QTest::newRow("the user of sudo") << stranger << QByteArray("1234") << true << here;
        QTest::newRow("no number") << stranger << QByteArray("1234x") << false << here;
        QTest::newRow("both unmapped") << self << QByteArray() << false << QByteArray("");
        QTest::newRow("mapped") << self << QByteArray() << true
                                << "5 " + QByteArray::number(self) + " 1";
        QTest::newRow("unmapped, nobody mapped")
            << stranger << QByteArray("65534") << false << QByteArray("0 0 1");
        QTest::newRow("unmapped, somebody mapped there")
            << 70000U << QByteArray("65534") << false << QByteArray("0 0 65536");
        QTest::newRow("all mapped")
            << overflowUser << QByteArray("65534") << true << QByteArray("0 0 4294967295");
    }
    void peers()
    {
        QFETCH(uint, listener);
        QFETCH(QByteArray, sudoUid);
        QFETCH(bool, mayAnswer);
        QFETCH(QByteArray, mapping);
        if (::geteuid() != 0 && listener != ::geteuid())
            QSKIP("root alone can become somebody else");
        const QTemporaryDir directory;
        QVERIFY(QFile::setPermissions(directory.path(), QFile::Permissions(0x7777)));
        sockaddr_un address{AF_UNIX, {}};
        const QByteArray path = QFile::encodeName(directory.filePath(QStringLiteral("socket")));
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        const auto* const raw = reinterpret_cast<const sockaddr*>(&address);
        const test::Child server([&] {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            if (::setuid(listener) != 0 || ::bind(fd, raw, sizeof address) != 0 ||
                ::listen(fd, 1) != 0)
                ::_exit(1);
        });
        const UniqueFd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        QCOMPARE(::connect(client.get(), raw, sizeof address), 0);
        test::Child asking([&] {
            if (!mapping.isNull() && ::setns(userNamespace(mapping).get(), CLONE_NEWUSER) != 0)
                ::_exit(refused);
            qputenv("SUDO_UID", sudoUid);
            ::_exit(int(platform::mayAnswerForUser(client.get())));
        });
        const int answer = asking.wait();
        if (answer == refused)
            QSKIP("this machine refuses a user namespace");
        QCOMPARE(answer, int(mayAnswer));
    }

    void whatIsNoSocketMayNot()
    {
        const UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        QVERIFY(!platform::mayAnswerForUser(file.get()));
        QVERIFY(!platform::mayAnswerForUser(-1));
    }
};

QTEST_GUILESS_MAIN(TestConsentPeer)
#include "tst_consent_peer.moc"
