// Tests the listing of installed software on databases of rpm's and the test's own making, beside
// dpkg-query, and with scripts in the place of programs that lie, hang and flood; that the
// machine's own packages are listed is tested through the official client.
#include "platform/linux/software/package_databases.h"
#include "platform/linux/software/software_sources.h"

#include "support/damage.h"
#include "support/system.h"

#include <QDeadlineTimer>
#include <QRegularExpression>

#include <csignal>

using namespace korvane;
using namespace korvane::linux_platform;
using namespace Qt::StringLiterals;
using test::shell;

namespace {

/// Makes a database with a journal; prints the lines that its entries make, by dpkg-query.
constexpr auto dpkgDatabase = R"(
mkdir -p $0/updates; cd $0
put() {
    printf '\nPackage: %s\nVersion: %s\nArchitecture: %s\nStatus: hold ok %s\n' "$1" "$2" \
        "${3:-amd64}" "${4:-installed}"
    printf "Installed-Size: 7\n${5:-X-Y: x}\nMaintainer: M é %%1 <m@x>\nDescription: d\n"
}
update() { put "$@" >updates/000$n; n=$((n + 1)); }
same='Multi-Arch: same' n=0
{
    printf 'pACKAGE:  caps\t\nstatus:\tinstall ok installed\nversion:1:2~x+b1-3 \n'
    printf 'ARCHITECTURE: all\nInstalled-Size: 0\n'
    put conf 1 amd64 installed 'X-Text: t\n x\n Version: x\nX-Version: 5'
    for i in dpkg kept upgraded crossed removed purged half; do put $i 1; done
    for i in both both2 joined left; do put $i 1 amd64 installed "$same"; done
    for i in both both2; do put $i 1 i386 installed "$same"; done
    put is-awaiting 1 amd64 triggers-awaited 'Triggers-Awaited: dpkg'
    put is-pending 1 amd64 triggers-pending 'Triggers-Pending: /t'
    for i in half-configured unpacked; do put is-$i 1 amd64 $i; done
} >status
update upgraded 2; update upgraded 3; update crossed 2 i386; update removed 1 amd64 config-files
update purged 1 amd64 not-installed; update half 2 amd64 half-installed
update both 2 i386 installed "$same"; update both2 1 amd64 not-installed "$same"
update joined 2 i386 installed "$same"; update left 2 i386
put new 1 all >updates/0010; put new2 1 armhf >>updates/0010
put kept 9 | tee updates/tmp.i >updates/tmp
form='${Package}|${Version}|${Maintainer}|${Installed-Size}|${Architecture}'
dpkg-query --admindir=. -W -f='${db:Status-Status}|'"$form\n" |
    awk -F'|' -v OFS='|' '!/^(not-installed|config-files)/ { $5 += 0; sub(/[^|]*./, ""); print }'
)";

QString line(const UninstallEntry& entry, const QString& last)
{
    return QStringList{entry.displayName, entry.displayVersion, entry.publisher,
                       QString::number(entry.estimatedSizeKb), last}
        .join(u'|');
}

QStringList lines(const QList<UninstallEntry>& entries)
{
    QStringList all;
    for (const UninstallEntry& entry : entries)
        all += line(entry, entry.uninstallString + u'|' + QString::number(entry.source) +
                               entry.installLocation);
    return all;
}

/// `name` as dpkg keeps it.
QByteArray stanza(const QByteArray& name, const QByteArray& architecture = "amd64")
{
    return "Package: " + name + "\nStatus: hold ok installed\nMaintainer: M \xc3\xa9 <m@x>\n" +
           "Installed-Size: 7\nArchitecture: " + architecture + "\nVersion: 1\n";
}

const QString late = u"1000 毫秒内未结束"_s;
/// What a program does, and how what is said of it begins.
const test::Cases<QByteArray, QString> failures{
    {"is not there", {}, u"无法启动: "_s},
    {"complains", "echo why %1 >&2; exit 3", u"退出码 3: why %1)"_s},
    {"is killed", "kill -9 $$", u"异常终止"_s},
    {"prints no table", "echo x", u"无法识别的输出"_s},
    {"hangs", "sleep 60; :", late},
    {"closes its output", "exec >&- 2>&-; sleep 60; :", late},
    {"floods errors", "cat /dev/zero >&2; :", late},
    {"floods", "cat /dev/zero; :", u"输出超过 99999 "_s},
    {"reads its input", "cat; echo No snaps >&2", {}},
    {"leaves a process behind", "sleep 60 & echo Name Rev", {}},
};

} // namespace

class TestInstalledSoftware : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // First: later the framework waits for children of its own.
    void starterMayHaveIgnoredChildren()
    {
        static_cast<void>(std::signal(SIGCHLD, SIG_IGN));
        QCOMPARE(linux_platform::runHelpers({{u"true"_s, {}}}, {})[0].error, QString());
    }

    void init()
    {
        m_limits = {};
        m_root = std::make_unique<QTemporaryDir>();
        qputenv("HOME", QFile::encodeName(m_root->path()));
        qputenv("PATH", QFile::encodeName(path("bin")) + ":/usr/bin:/bin");
        qputenv("FLATPAK_USER_DIR", QFile::encodeName(path("user")));
    }

    void journalIsMergedAsByDpkg()
    {
        if (shell("dpkg --print-architecture") != u"amd64\n")
            QSKIP("the database is that of an amd64 machine");
        QStringList expected = test::linesOf(shell(dpkgDatabase, {path("var/lib/dpkg")}));
        expected.sort();
        QStringList listed;
        for (const UninstallEntry& entry : list())
            listed += line(entry, entry.identifier.section(u':', 1));
        listed.sort();
        QCOMPARE(m_error, QString());
        QVERIFY(expected.size() >= 19);
        QCOMPARE(listed, expected);
        const QString commands = lines(list()).join(u'\n');
        for (const char* command : {"remove caps|0", "remove kept|0", "remove both:i386|1"})
            QVERIFY2(commands.contains(QLatin1String(command)), command);
    }

    void rpmDatabaseIsListed()
    {
        if (!QFile::exists(u"/usr/bin/rpmbuild"_s))
            QSKIP("this machine has no rpmbuild");
        write(".rpmmacros", "%_dbpath %(echo $HOME)/var/lib/rpm\n%_topdir %(echo $HOME)/build\n");
        const QString printed = shell(R"(cd; exec 2>&1
            build() {
                printf "Name: $1\nVersion: 1~rc\nRelease: 2^git\n$3\nPackager: P é <p@x>\n" >spec
                printf 'Summary: s\nLicense: l\n%%description\n%%install\n' >>spec
                printf "mkdir -p %%{buildroot}; head -c 5000 /dev/zero >%%{buildroot}/$1\n" >>spec
                printf "%%files\n/$1\n" >>spec
                rpmbuild -bb --quiet --target $2 spec
                rpm -i --justdb --nodeps --ignorearch build/RPMS/$2/*.rpm
            }
            build one noarch 'Epoch: 3\nVendor: V %%%%1'
            build two i686)");
        QStringList listed = lines(list());
        listed.sort();
        const QStringList expected{u"one|3:1~rc-2^git|V %1|5|rpm -e one-1~rc-2^git.noarch|0"_s,
                                   u"two|1~rc-2^git|P é <p@x>|5|rpm -e two-1~rc-2^git.i686|1"_s};
        QVERIFY2(listed == expected, qPrintable(listed.join(u'\n') + m_error + printed));
        write("var/lib/rpm/rpmdb.sqlite", QByteArray(8192, 'x'));
        QVERIFY(list().isEmpty());
        QVERIFY2(m_error.contains(u"rpm (退出码 "_s), qPrintable(m_error));
    }

    void programsAreAsked()
    {
        for (const char* file :
             {"var/lib/flatpak/app/a.B/x86_64/stable/active", "snap/core/current",
              "user/app/a/i386/b/active", "var/lib/snapd/state.json"})
            write(file, "x");
        write("var/lib/snapd/snaps/core_15.snap", QByteArray(1025, 'x'));
        // Each answers only once all have been asked.
        const QByteArray meet(R"(>"$HOME/asked-$2"
            until [ -e ~/asked---system ] && [ -e ~/asked---user ] && [ -e ~/asked---unicode=never ]
            do sleep 0.01; done
            )");
        writeProgram("flatpak", meet + R"(columns=--columns=ref,origin,size,options,version,name
            case "$*" in
            "list --system $columns")
                printf 'a.B/x86_64/stable\to\t1.5\302\240MB\tsystem,current\t1 b\tN\tn\n'
                printf 'x/i386/1\to\t512 bytes\tsystem,runtime\t\t\na line feed\n' ;;
            "list --user $columns") printf 'a/i386/b\to\t2.0 GB\tcurrent\tv\tn\n' ;;
            *) exit 9 ;; esac)");
        writeProgram("snap", meet + R"([ "$*" = "list --unicode=never --color=never" ] || exit 9
            echo 'Name  Version  Rev  Tracking  Publisher    Notes'
            echo 'core  2        15   -         canonical**  base'
            echo 'a_b   1 beta   x1   -         -            -'
            echo 'cut   1')");
        QCOMPARE(lines(list()).replaceInStrings(m_root->path(), u" in "_s),
                 QStringList({u"N\tn|1 b|o|1465|flatpak uninstall app/a.B/x86_64/stable|0 in "
                              "/var/lib/flatpak/app/a.B/x86_64/stable/active"_s,
                              u"x|1|o|1|flatpak uninstall runtime/x/i386/1|1"_s,
                              u"n|v|o|1953125|flatpak uninstall --user app/a/i386/b|2 in "
                              "/user/app/a/i386/b/active"_s,
                              u"core|2|canonical|2|snap remove core|0 in /snap/core/current"_s,
                              u"a_b|1 beta||0|snap remove a_b|0"_s}));
        QCOMPARE(m_error, QString());
    }

    void programMayFail_data() { test::addRows(failures); }
    void programMayFail()
    {
        const auto& [name, body, error] = test::currentRow(failures);
        write("var/lib/snapd/state.json", "x");
        if (!body.isEmpty())
            writeProgram("snap", "echo $$ >$HOME/pid\n" + body);
        // Only who is to be late gets little time: the machine may be busy.
        m_limits = {std::chrono::seconds(error == late ? 1 : 20), 99'999};
        const QDeadlineTimer deadline(30'000);
        QVERIFY(list().isEmpty());
        QVERIFY(!deadline.hasExpired());
        const QString said = error.isEmpty() ? QString() : u": snap ("_s + error;
        QVERIFY2(m_error.isEmpty() == said.isEmpty() && m_error.contains(said),
                 qPrintable(m_error));
        const int group = test::readFile(path("pid")).trimmed().toInt();
        if (group != 0 && error.isEmpty())
            ::kill(-group, SIGKILL);
        if (group != 0) // and all that it started
            QTRY_VERIFY(::kill(-group, 0) != 0);

        if (error.isEmpty())
            return;
        // Where another source can be read, a failure is logged, but only once.
        static bool isLogged = false;
        write("var/lib/dpkg/status", stanza("a"));
        if (!std::exchange(isLogged, true))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"未列出 snap: ."_s));
        QTest::failOnWarning(QRegularExpression(u"."_s));
        QCOMPARE(list().size(), 1);
        QCOMPARE(m_error, QString());
    }

    void nothingToReadIsAnError()
    {
        qputenv("PATH", "/nonexistent");
        write("user/app/x", {}); // which no program is there to list
        QVERIFY(list().isEmpty());
        QVERIFY2(m_error.contains(u"没有 dpkg, rpm"_s), qPrintable(m_error));
        QVERIFY(QDir().mkpath(path("var/lib/dpkg/status")));
        QVERIFY(list().isEmpty());
        QVERIFY2(m_error.contains(path("var/lib/dpkg/status: ")), qPrintable(m_error));
    }

    void commandsAreOnlyMadeOfPlainNames()
    {
        const QByteArrayList names{"-y", "a;b", "a b",  "$(a)", "..",       "../a",
                                   "a&", "a\\", "\x01", "a\"",  "\xc3\xa9", QByteArray(300, 'a')};
        QCOMPARE(parseDpkgDatabase(stanza("Aa"), {})[0].uninstallString, QString());
        for (const QByteArray& name : names) {
            auto entries = parseDpkgDatabase(stanza(name) + '\n' + stanza("a", name), {});
            entries += parseRpmPackages("a\x1f" + name + "\x1f\x1f\x1f\x1f\x1e");
            for (const QByteArray& ref : {name + "/c/b", "a/" + name + "/b", "a/c/" + name})
                entries += parseFlatpakList(ref + "\to\t1 MB\tcurrent\t1\tn\n", true);
            entries += *parseSnapList("Name Rev\n" + name + " 1\n");
            QVERIFY(entries.size() >= 6);
            for (const UninstallEntry& entry : entries)
                QVERIFY2(entry.uninstallString.isEmpty(), qPrintable(entry.uninstallString));
        }
    }

    void damagedTextIsSurvived()
    {
        QByteArray rpm(
            "gpg-pubkey;gpg-pubkey-1-1;1-1;(none);0;|a;a-1.i586;1;i586;9223372036854775807;v|");
        rpm.replace(';', '\x1f').replace('|', '\x1e');
        QCOMPARE(lines(parseRpmPackages(rpm)),
                 QStringList(u"a|1|v|9007199254740992|rpm -e a-1.i586|1"_s));
        for (const char* size : {"-1 MB", "nan MB", "1e300 TB", "inf kB", "1 XB", "", "2000 kB"})
            QCOMPARE(parseFlatpakList(QByteArray("a/b/c\to\t") + size + "\t\t\tn", true)[0]
                         .estimatedSizeKb,
                     0);
        const QByteArray text = stanza("a") + '\n' + stanza("b", "i386") + '\n' + rpm +
                                "Name Rev Publisher\na 1 b**\na/b/c\to\t1 MB\tx\t1\tn\n";
        const auto survive = [](const QByteArray& damaged) {
            const auto entries = parseDpkgDatabase(damaged, {damaged}) + parseRpmPackages(damaged) +
                                 parseFlatpakList(damaged, false) +
                                 parseSnapList(damaged).value_or(QList<UninstallEntry>());
            for (const UninstallEntry& entry : entries)
                QVERIFY(entry.estimatedSizeKb >= 0);
        };
        test::feedTruncated(text, survive);
        test::feedChanged(text, survive);
        // The other two look at the first line for their form.
        test::feedChanged(text.sliced(text.indexOf("Name Rev")), survive);
        test::feedChanged(text.sliced(text.indexOf("a/b/c")), survive);
    }

private:
    QString path(const QByteArray& name) const { return m_root->filePath(QString::fromUtf8(name)); }

    QList<UninstallEntry> list()
    {
        m_error.clear();
        return listInstalledSoftware(m_root->path(), m_limits, &m_error);
    }

    void write(const QByteArray& name, const QByteArray& content) const
    {
        test::writeFile(path(name), content);
    }

    /// A script that is found in PATH.
    void writeProgram(const QByteArray& name, const QByteArray& body) const
    {
        write("bin/" + name, "#!/bin/sh\n" + body);
        QFile::setPermissions(path("bin/" + name), QFile::ReadOwner | QFile::ExeOwner);
    }

    std::unique_ptr<QTemporaryDir> m_root;
    HelperLimits m_limits;
    QString m_error;
};

QTEST_GUILESS_MAIN(TestInstalledSoftware)
#include "tst_software.moc"
