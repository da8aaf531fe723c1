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

/// The lines that the entries of a database make, by dpkg-query.
constexpr auto dpkgQuery = R"(dpkg-query --admindir=$0 -W -f='${db:Status-Status}|${Package}|)"
                           R"(${Version}|${Maintainer}|${Installed-Size}|${Architecture}\n' |
    awk -F'|' -v OFS='|' '!/^(not-installed|config-files)/ { $5 += 0; sub(/[^|]*./, ""); print }')";

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
        all += line(entry, entry.uninstallString + u'|' + QString::number(entry.source));
    return all;
}

/// `name` as dpkg keeps it; `more` are whole lines.
QByteArray stanza(const QByteArray& name, const QByteArray& version,
                  const QByteArray& architecture = "amd64", const QByteArray& more = {},
                  const QByteArray& state = "installed")
{
    return "Package: " + name + "\nStatus: hold ok " + state +
           "\nMaintainer: M \xc3\xa9 %1 <m@x>\n" +
           "Installed-Size: 7\nArchitecture: " + architecture + '\n' + more +
           "Version: " + version + "\nDescription: d\n";
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
        const QByteArray same("Multi-Arch: same\n");
        QByteArray status("pACKAGE:  caps\t\nstatus:\tinstall ok installed\nversion:1:2~x+b1-3 \n"
                          "ARCHITECTURE: all\nInstalled-Size: 0\n\n");
        status += stanza("conf", "1", "amd64", "X-Text: t\n x\n Version: x\nX-Version: 5\n");
        for (const char* name :
             {"dpkg", "kept", "upgraded", "crossed", "removed", "purged", "half"})
            status += '\n' + stanza(name, "1");
        for (const char* name : {"both", "both2", "joined"})
            status += '\n' + stanza(name, "1", "amd64", same);
        status +=
            '\n' + stanza("both", "1", "i386", same) + '\n' + stanza("both2", "1", "i386", same);
        const QByteArrayList updates{stanza("upgraded", "2"),
                                     stanza("upgraded", "3"),
                                     stanza("crossed", "2", "i386"),
                                     stanza("removed", "1", "amd64", {}, "config-files"),
                                     "Package: purged\nStatus: purge ok not-installed\n",
                                     stanza("half", "2", "amd64", {}, "half-installed"),
                                     stanza("both", "2", "i386", same),
                                     stanza("both2", "1", "amd64", same, "not-installed"),
                                     stanza("joined", "2", "i386", same),
                                     stanza("new", "1", "all") + '\n' +
                                         stanza("new2", "1", "armhf")};
        for (const auto& [state, more] :
             {std::pair("triggers-awaited", "Triggers-Awaited: dpkg\n"),
              std::pair("triggers-pending", "Triggers-Pending: /t\n"),
              std::pair("half-configured", ""), std::pair("unpacked", "")})
            status += '\n' + stanza(QByteArray("is-") + state, "1", "amd64", more, state);
        write("var/lib/dpkg/status", status);
        for (qsizetype i = 0; i < updates.size(); ++i)
            write("var/lib/dpkg/updates/000" + QByteArray::number(i), updates[i]);
        write("var/lib/dpkg/updates/tmp.i", stanza("kept", "9"));

        QStringList listed;
        for (const UninstallEntry& entry : list())
            listed += line(entry, entry.identifier.section(u':', 1));
        listed.sort();
        QCOMPARE(m_error, QString());
        QStringList expected = test::linesOf(shell(dpkgQuery, {path("var/lib/dpkg")}));
        expected.sort();
        QVERIFY(expected.size() >= 15);
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
            for package in one:noarch two:i686; do
                name=${package%:*} cpu=${package#*:}
                sed 's/^ *//' >spec <<END
                    Name: $name
                    Version: 1~rc
                    Release: 2^git
                    $(test $name = one && printf 'Epoch: 3\nVendor: V %%%%1')
                    Packager: P é <p@x>
                    Summary: s
                    License: l
                    %description
                    %install
                    mkdir -p %{buildroot}; head -c 5000 /dev/zero >%{buildroot}/$name
                    %files
                    /$name
END
                rpmbuild -bb --quiet --target $cpu spec
                rpm -i --justdb --nodeps --ignorearch build/RPMS/$cpu/*.rpm
            done)");
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
        const auto entries = list();
        QCOMPARE(m_error, QString());
        QCOMPARE(lines(entries),
                 QStringList({u"N\tn|1 b|o|1465|flatpak uninstall app/a.B/x86_64/stable|0"_s,
                              u"x|1|o|1|flatpak uninstall runtime/x/i386/1|1"_s,
                              u"n|v|o|1953125|flatpak uninstall --user app/a/i386/b|2"_s,
                              u"core|2|canonical|2|snap remove core|0"_s,
                              u"a_b|1 beta||0|snap remove a_b|0"_s}));
        QCOMPARE(entries[0].installLocation, path("var/lib/flatpak/app/a.B/x86_64/stable/active"));
        QCOMPARE(entries[1].installLocation, QString());
        QCOMPARE(entries[2].installLocation, path("user/app/a/i386/b/active"));
        QCOMPARE(entries[3].installLocation, path("snap/core/current"));
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
        if (error.isEmpty())
            QCOMPARE(m_error, QString());
        else
            QVERIFY2(m_error.contains(u": snap ("_s + error), qPrintable(m_error));
        const int group = test::readFile(path("pid")).trimmed().toInt();
        if (group != 0 && error.isEmpty())
            ::kill(-group, SIGKILL);
        if (group != 0) // and all that it started
            QTRY_VERIFY(::kill(-group, 0) != 0);

        if (error.isEmpty())
            return;
        // Where another source can be read, a failure is logged, but only once.
        static bool isLogged = false;
        write("var/lib/dpkg/status", stanza("a", "1"));
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
        QCOMPARE(parseDpkgDatabase(stanza("Aa", "1"), {})[0].uninstallString, QString());
        for (const QByteArray& name : names) {
            auto entries = parseDpkgDatabase(stanza(name, "1") + '\n' + stanza("a", "1", name), {});
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
        const QByteArray rpm =
            QByteArray("gpg-pubkey;gpg-pubkey-1-1;1-1;(none);0;|a;a-1.i586;1;i586;"
                       "9223372036854775807;v|")
                .replace(';', '\x1f')
                .replace('|', '\x1e');
        QCOMPARE(lines(parseRpmPackages(rpm)),
                 QStringList(u"a|1|v|9007199254740992|rpm -e a-1.i586|1"_s));
        for (const char* size : {"-1 MB", "nan MB", "1e300 TB", "inf kB", "1 XB", "", "2000 kB"})
            QCOMPARE(parseFlatpakList(QByteArray("a/b/c\to\t") + size + "\t\t\tn", true)[0]
                         .estimatedSizeKb,
                     0);
        const QByteArray text = stanza("a", "1") + '\n' + stanza("b", "1", "i386") + '\n' + rpm +
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
