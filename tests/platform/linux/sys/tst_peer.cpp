// Tests who may answer for the user, on real sockets of this and of another user.
#include "platform/linux/sys/proc_fs.h"
#include "platform/peer.h"
#include "support/system.h"

using namespace korvane;
using namespace Qt::StringLiterals;
using linux_platform::UniqueFd;

namespace {

constexpr uid_t stranger = 1234;
const uid_t self = ::geteuid();

/// A user namespace with that mapping, where the machine lets the test make one.
UniqueFd userNamespace(const QByteArray& mapping)
{
    const test::Child inside([] { ::unshare(CLONE_NEWUSER); });
    const QString process = u"/proc/%1/"_s.arg(inside.pid());
    QFile map(process + u"uid_map"_s);
    if (!mapping.isEmpty() &&
        !(map.open(QFile::WriteOnly | QFile::Unbuffered) && map.write(mapping) > 0))
        return UniqueFd();
    return UniqueFd(::open(qPrintable(process + u"ns/user"_s), O_RDONLY | O_CLOEXEC));
}

const QByteArray here;
/// Who made the other end, the user of sudo, whether he may answer, and the mapping of the
/// namespace that asks, if it is another one.
const test::Cases<uid_t, QByteArray, bool, QByteArray> users{
    {"the same user", self, {}, true, here},
    {"a stranger", stranger, {}, false, here},
    {"a stranger beside sudo", stranger, "1000", false, here},
    {"the user of sudo", stranger, "1234", true, here},
    {"no number", stranger, "1234x", false, here},
    {"both unmapped", self, {}, false, ""},
    {"mapped", self, {}, true, "5 " + QByteArray::number(self) + " 1"},
    {"unmapped, nobody mapped", stranger, "65534", false, "0 0 1"},
    {"unmapped, somebody mapped there", 70000U, "65534", false, "0 0 65536"},
    {"all mapped", test::nobody, "65534", true, "0 0 4294967295"},
};

} // namespace

class TestPeer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void peers_data() { test::addRows(users); }
    void peers()
    {
        const auto& [name, maker, sudoUid, mayAnswer, mapping] = test::currentRow(users);
        if (self != 0 && maker != self)
            QSKIP("root alone can become somebody else");
        std::array<int, 2> ends{};
        QCOMPARE(::seteuid(maker), 0);
        const int error = ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data());
        QVERIFY(::seteuid(self) == 0 && ::prctl(PR_SET_DUMPABLE, 1) == 0 && error == 0);
        const UniqueFd own(ends[0]);
        const UniqueFd other(ends[1]);
        const QString answer = test::played([&own, user = sudoUid, map = mapping] {
            if (!map.isNull() && ::setns(userNamespace(map).get(), CLONE_NEWUSER) != 0)
                ::_exit(test::refusedCode);
            qputenv("SUDO_UID", user);
            const auto peer = platform::peerOf(own.get());
            return peer && peer->user != platform::PeerUser::Other ? u"yes"_s : u"no"_s;
        });
        if (answer.isEmpty())
            QSKIP("this machine refuses a user namespace");
        QCOMPARE(answer, mayAnswer ? u"yes"_s : u"no"_s);
    }

    void whatIsNoSocketMayNot()
    {
        const UniqueFd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        QVERIFY(!platform::peerOf(file.get()) && !platform::peerOf(-1));
    }
};

QTEST_GUILESS_MAIN(TestPeer)
#include "tst_peer.moc"
