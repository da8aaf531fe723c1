// Tests who may answer for the user, on real sockets of this and of another user.
#include "platform/linux/proc_fs.h"
#include "platform/platform.h"
#include "support/child_process.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/socket.h>
#include <sys/un.h>

using namespace korvane;
using linux_platform::UniqueFd;

namespace {

constexpr uid_t stranger = 65534;

} // namespace

class TestConsentPeer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { qunsetenv("SUDO_UID"); }

    void peers_data()
    {
        QTest::addColumn<uint>("listener");
        QTest::addColumn<QByteArray>("sudoUid");
        QTest::addColumn<bool>("mayAnswer");
        QTest::newRow("the same user") << ::geteuid() << QByteArray() << true;
        QTest::newRow("a stranger") << stranger << QByteArray() << false;
        QTest::newRow("a stranger beside sudo") << stranger << QByteArray("1000") << false;
        QTest::newRow("the user of sudo") << stranger << QByteArray("65534") << true;
        QTest::newRow("no number") << stranger << QByteArray("65534x") << false;
    }
    void peers()
    {
        QFETCH(uint, listener);
        QFETCH(QByteArray, sudoUid);
        QFETCH(bool, mayAnswer);
        if (::geteuid() != 0 && listener == stranger)
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
        if (!sudoUid.isEmpty())
            qputenv("SUDO_UID", sudoUid);
        QCOMPARE(platform::mayAnswerForUser(client.get()), mayAnswer);
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
