// Tests the list of services: on a bus of the test's own that misbehaves, and, run by
// private_systemd.sh, on units of a real systemd.
#include "core/service_manager_service.h"
#include "platform/linux/proc_fs.h"
#include "platform/linux/services.h"
#include "support/mcp_client.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::linux_platform;

namespace {

/// Answers `call` as the bus, and the systemd on it, of the case `role`; negative to hang up.
int answer(const QByteArray& role, sd_bus_message* call)
{
    const QByteArray member = sd_bus_message_get_member(call);
    if (member == "Hello")
        return sd_bus_reply_method_return(call, "s", ":1.1");
    if (role == "mute systemd")
        return 0;
    if (role == "refusing systemd")
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "%s", "%1 no");
    if (member == "ListUnitsByPatterns" && role == "other type")
        return sd_bus_reply_method_return(call, "as", 1, "a.service");
    if (member == "ListUnitsByPatterns")
        return sd_bus_reply_method_return(call, "a(ssssssouso)", 1, "a.service", "A", "loaded",
                                          "active", "", "", "/a", 0, "", "/");
    if (member == "ListUnitFilesByPatterns") {
        sd_bus_message* reply = nullptr;
        sd_bus_message_new_method_return(call, &reply);
        sd_bus_message_open_container(reply, 'a', "(ss)");
        for (int row = 0; row < (role == "endless list" ? 50'000 : 1); ++row)
            sd_bus_message_append(reply, "(ss)", "/b.service", "enabled");
        sd_bus_message_close_container(reply);
        const int result = sd_bus_message_send(reply);
        sd_bus_message_unref(reply);
        return result;
    }
    if (role == "lost connection")
        return -1;
    static int calls = 0; // one property is gone, the next is not of its type
    return ++calls % 2 == 0 ? sd_bus_reply_method_errorf(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "gone")
                            : sd_bus_reply_method_return(call, "v", "b", 1);
}

/// Lets the first peer of `listener` talk to the case `role` until one of them hangs up.
void serve(int listener, const QByteArray& role)
{
    const int peer = ::accept(listener, nullptr, nullptr);
    if (role == "garbage" || role == "closed") {
        const QByteArray garbage(role == "garbage" ? 100'000 : 0, '\xff');
        ::send(peer, garbage.constData(), static_cast<size_t>(garbage.size()), MSG_NOSIGNAL);
        ::close(peer);
        return;
    }
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, peer, peer);
    sd_bus_set_server(bus, 1, SD_ID128_MAKE(1, 2, 3, 4, 5, 6, 7, 8, 9, a, b, c, d, e, f, 0));
    int result = sd_bus_start(bus);
    while (result >= 0 && sd_bus_is_open(bus) > 0) {
        sd_bus_message* call = nullptr;
        result = sd_bus_process(bus, &call);
        if (result == 0)
            sd_bus_wait(bus, UINT64_MAX);
        else if (call != nullptr && sd_bus_message_get_member(call) != nullptr)
            result = answer(role, call);
        sd_bus_message_unref(call);
    }
    sd_bus_close_unref(bus);
}

/// What the words of `command` make systemctl print, split by `separator`.
QStringList systemctl(const QString& command, const QString& separator = QStringLiteral("\n"))
{
    QProcess process;
    process.start(
        QStringLiteral("systemctl"),
        (QStringLiteral("--user --plain --no-legend ") + command).split(QLatin1Char(' ')));
    process.waitForFinished(60'000);
    return QString::fromUtf8(process.readAllStandardOutput()).split(separator, Qt::SkipEmptyParts);
}

/// The entries of list_services by name, in an order that is checked.
QMap<QString, QJsonObject> listed()
{
    QMap<QString, QJsonObject> services;
    const test::ToolReply reply = test::Client().call(QStringLiteral("list_services"));
    for (const auto entry : reply.json().value(QLatin1String("entries")).toArray()) {
        const QString name = entry.toObject().value(QLatin1String("name")).toString();
        if (services.isEmpty() || services.lastKey() < name)
            services.insert(name, entry.toObject());
    }
    return services;
}

QString textOf(const QJsonObject& service, const char* key)
{
    return service.value(QLatin1String(key)).toString();
}

constexpr auto waits = "[Service]\nExecStart=/bin/sleep infinity\n";

/// Unit files of the test's own, by name.
const QMap<QString, QByteArray> unitFiles{
    {QStringLiteral("run"),
     QByteArray("[Unit]\nDescription=跑步 %%1\nDocumentation=man:a(1) https://b\n") + waits +
         "[Install]\nWantedBy=default.target\n"},
    {QStringLiteral("off"), "[Service]\nType=oneshot\nExecStart=@/bin/sh x -c true\n"
                            "ExecStart=/bin/false\n[Install]\nWantedBy=default.target\n"},
    {QStringLiteral("broken"), "[Service]\nType=oneshot\nExecStart=/bin/false\n"},
    {QStringLiteral("begins"), QByteArray(waits) + "Type=notify\nTimeoutStartSec=infinity\n"},
    {QStringLiteral("ends"), QByteArray(waits) + "ExecStop=/bin/sleep infinity\n"},
    {QStringLiteral("of@"), QByteArray("[Unit]\nDescription=<%i>\n") + waits},
    {QStringLiteral("needs"),
     QByteArray("[Unit]\nRequires=run.service\nWants=gone.service\n") + waits},
    {QStringLiteral("tied"), QByteArray("[Unit]\nBindsTo=run.service\nRequisite=needs.service\n"
                                        "After=needs.service\n") +
                                 waits},
};

/// How these units are listed once they have been started: state, start type and texts.
const QStringList unitsShown{
    QStringLiteral("begins|启动中…|手动|begins.service||/bin/sleep infinity"),
    QStringLiteral("broken|已停止|手动|broken.service||/bin/false"),
    QStringLiteral("ends|停止中…|手动|ends.service||/bin/sleep infinity"),
    QStringLiteral("masked|已停止|已禁用|masked.service||"),
    QStringLiteral("needs|运行中|手动|needs.service||/bin/sleep infinity"),
    QStringLiteral("of@1.2_3\\x2d|运行中|手动|<1.2_3\\x2d>||/bin/sleep infinity"),
    QStringLiteral("off|已停止|手动|off.service||/bin/sh -c true"),
    QStringLiteral("passing|运行中|手动|/bin/sleep infinity||/bin/sleep infinity"),
    QStringLiteral("run|运行中|自动|跑步 %1|man:a(1) https://b|/bin/sleep infinity"),
    QStringLiteral("tied|运行中|手动|tied.service||/bin/sleep infinity"),
};

} // namespace

class TestLinuxServices : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void unitNamesAreCheckedAndShortened_data()
    {
        QTest::addColumn<QByteArray>("unitName");
        QTest::addColumn<QString>("shown"); // null: none
        const QByteArray longest(247, 'x');
        QTest::newRow("longest") << longest + ".service" << QString::fromLatin1(longest);
        QTest::newRow("instance") << QByteArray("a@b@c.service") << QStringLiteral("a@b@c");
        QTest::newRow("suffix twice")
            << QByteArray("a.service.service") << QStringLiteral("a.service");
        for (const QByteArray name :
             {"", ".service", "service", "a", "a.socket", "a.serviceX", "@.service", "a@.service",
              "@a.service", "a b.service", "a\n.service", "\xff.service", "\xe6\x9c\x8d.service",
              "../a.service"})
            QTest::addRow("refused: %s", name.toPercentEncoding().constData()) << name << QString();
        QTest::newRow("refused: too long") << longest + "x.service" << QString();
        QTest::newRow("refused: NUL") << QByteArray("a\0b.service", 11) << QString();
    }
    void unitNamesAreCheckedAndShortened()
    {
        QFETCH(QByteArray, unitName);
        QFETCH(QString, shown);
        const auto name = serviceNameOf(unitName);
        QCOMPARE(name.value_or(QString()), shown);
        QVERIFY(!name || unitNameOf(*name) == unitName);
    }

    void hostileListsAreMerged()
    {
        ListedServices services;
        for (int i = 0; i < 100'000; ++i) {
            const QByteArray unit = "u" + QByteArray::number(i % 50'000) + ".service";
            addUnitFile(services, "/a/" + unit, i % 2 == 0 ? "masked" : "\xff");
            addLoadedUnit(services, unit, "\xff%1", "loaded", "");
        }
        addUnitFile(services, "", "");
        addUnitFile(services, "/", "enabled");
        addUnitFile(services, "/x/.service", "enabled");
        QCOMPARE(services.size(), 50'000);
        const ListedService service = services.value(QStringLiteral("u7"));
        QCOMPARE(service.item.displayName,
                 QString(QChar::ReplacementCharacter) + QLatin1String("%1"));
        QCOMPARE(service.item.state, ServiceState::Unknown);
        QCOMPARE(service.item.startType, ServiceStartType::Unknown);
    }

    void troubleIsTold_data()
    {
        QTest::addColumn<QString>("told"); // how it begins; nothing when there is a list
        const QString lost = QStringLiteral("系统总线连接中断: ");
        const QString damaged = QStringLiteral("systemd 的服务列表无法识别");
        QTest::newRow("nobody") << QStringLiteral("无法连接系统总线: ");
        QTest::newRow("silent bus") << QStringLiteral("系统总线在 0.5 秒内没有应答");
        QTest::newRow("closed") << lost;
        QTest::newRow("garbage") << lost;
        QTest::newRow("bus without systemd") << QStringLiteral("系统总线上没有 systemd");
        QTest::newRow("mute systemd") << QStringLiteral("systemd 在 0.5 秒内没有应答");
        QTest::newRow("refusing systemd") << QStringLiteral("systemd 拒绝列出服务: %1 no");
        QTest::newRow("other type") << damaged;
        QTest::newRow("endless list") << damaged;
        QTest::newRow("lost connection") << lost;
        QTest::newRow("useless properties") << QString();
    }
    void troubleIsTold()
    {
        QFETCH(QString, told);
        const QByteArray role = QTest::currentDataTag();
        const QTemporaryDir directory;
        QByteArray path = QFile::encodeName(directory.filePath(QStringLiteral("bus")));
        sockaddr_un address{AF_UNIX, {}};
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        const UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        QCOMPARE(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        if (role != "nobody")
            QCOMPARE(::listen(listener.get(), 1), 0);
        QProcess daemon;
        std::jthread bus;
        if (role == "bus without systemd") {
            path += "2";
            daemon.start(QStringLiteral("dbus-daemon"),
                         {QStringLiteral("--session"), QStringLiteral("--nofork"),
                          QStringLiteral("--print-address"),
                          QStringLiteral("--address=unix:path=") + QFile::decodeName(path)});
            if (!daemon.waitForReadyRead())
                QSKIP("dbus-daemon does not run here");
        } else if (role != "nobody" && role != "silent bus") {
            bus = std::jthread(serve, listener.get(), role);
        }
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + path);
        QElapsedTimer timer;
        timer.start();
        QString error;
        const QList<ServiceItem> services = listServices(std::chrono::milliseconds(500), &error);
        QVERIFY2(told.isEmpty() ? error.isEmpty() : error.startsWith(told), qPrintable(error));
        QCOMPARE(services.size(), told.isEmpty() ? 2 : 0);
        QVERIFY(timer.elapsed() < 4000);
        daemon.kill();
        daemon.waitForFinished();
    }

    void realUnitsAreListed()
    {
        if (qEnvironmentVariableIsEmpty("KORVANE_PRIVATE_SYSTEMD"))
            QSKIP("private_systemd.sh runs this");
        const QString folder = QDir::homePath() + QStringLiteral("/.config/systemd/user/");
        const auto write = [&folder](const QString& name, const QByteArray& content) {
            QFile file(folder + name + QStringLiteral(".service"));
            return file.open(QIODevice::WriteOnly) && file.write(content) > 0;
        };
        for (auto unit = unitFiles.cbegin(); unit != unitFiles.cend(); ++unit)
            QVERIFY(write(unit.key(), unit.value()));
        for (int i = 0; i < 300; ++i) // more than a system bus lets wait, and slow to be loaded
            QVERIFY(write(QStringLiteral("many%1").arg(i), waits));
        QVERIFY(
            QFile::link(QStringLiteral("run.service"), folder + QStringLiteral("alias.service")));
        QVERIFY(
            QFile::link(QStringLiteral("/dev/null"), folder + QStringLiteral("masked.service")));
        for (const char* command :
             {"daemon-reload", "enable run", "start broken ends needs tied of@1.2_3\\x2d",
              "start --no-block begins", "stop --no-block ends"})
            systemctl(QString::fromUtf8(command));
        QProcess::execute(QStringLiteral("systemd-run"),
                          {QStringLiteral("--user"), QStringLiteral("--unit=passing"),
                           QStringLiteral("/bin/sleep"), QStringLiteral("infinity")});

        const auto ownRows = [] {
            const QMap<QString, QJsonObject> services = listed();
            QStringList rows;
            for (const QString& expected : unitsShown) {
                QStringList row;
                for (const char* key :
                     {"name", "state", "start_type", "display_name", "description", "binary_path"})
                    row += textOf(services.value(expected.section(QLatin1Char('|'), 0, 0)), key);
                rows += row.join(QLatin1Char('|'));
            }
            return rows;
        };
        QTRY_COMPARE_WITH_TIMEOUT(ownRows(), unitsShown, 2000);

        const auto& services = Singleton<ServiceManagerService>::instance();
        const QString run = QStringLiteral("run");
        const QString needs = QStringLiteral("needs");
        const QString tied = QStringLiteral("tied");
        QCOMPARE(services.enumDependents(run), (QList<QString>{needs, tied}));
        QCOMPARE(services.queryDependencies(tied), (QList<QString>{needs, run}));
        QCOMPARE(services.queryDependencies(QStringLiteral("of@")), QList<QString>());
        compareWithSystemctl();
    }

private:
    static void compareWithSystemctl()
    {
        QSet<QString> names;
        for (const char* command : {"list-unit-files", "list-units --all"}) {
            for (const QString& line :
                 systemctl(QLatin1String(command) + QLatin1String(" *.service"))) {
                if (!line.contains(QLatin1String("@.service")) &&
                    !line.contains(QLatin1String(" alias ")) &&
                    !line.contains(QLatin1String(" not-found ")))
                    names.insert(line.section(QLatin1Char(' '), 0, 0));
            }
        }
        const QMap<QString, QJsonObject> services = listed();
        QCOMPARE(services.size(), names.size());
        QVERIFY(services.size() > 300);
        const QString show = QStringLiteral("show -p Id,Description,Documentation,MainPID ");
        const QString all = QStringList(names.begin(), names.end()).join(QLatin1Char(' '));
        for (const QString& block : systemctl(show + all, QStringLiteral("\n\n"))) {
            QMap<QString, QString> unit;
            for (const QString& line : block.split(QLatin1Char('\n')))
                unit.insert(line.section(QLatin1Char('='), 0, 0),
                            line.section(QLatin1Char('='), 1));
            const QString id = unit.value(QStringLiteral("Id"));
            const QJsonObject service = services.value(id.chopped(8));
            QCOMPARE(textOf(service, "display_name"), unit.value(QStringLiteral("Description")));
            QCOMPARE(textOf(service, "description"), unit.value(QStringLiteral("Documentation")));
            QCOMPARE(service.value(QLatin1String("pid")).toInt(),
                     unit.value(QStringLiteral("MainPID")).toInt());
        }
    }
};

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    TestLinuxServices test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_linux_services.moc"
