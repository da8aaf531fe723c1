// Tests the list of services: on a bus of the test's own that misbehaves, and, run by
// private_systemd.sh, on units of a real systemd.
#include "core/services.h"
#include "platform/linux/services/services.h"
#include "platform/linux/services/unit_files.h"
#include "platform/linux/sys/proc_fs.h"
#include "support/mcp_client.h"
#include "support/system.h"

#include <QDeadlineTimer>
#include <QLocalServer>
#include <QLocalSocket>
#include <QRegularExpression>

#include <systemd/sd-bus.h>

using namespace korvane;
using namespace korvane::linux_platform;
using namespace Qt::StringLiterals;
using test::linesOf;
using test::shell;

namespace {

/// Answers `call` as the bus, and the systemd on it, of the case `role`.
int answer(const QByteArray& role, sd_bus_message* call)
{
    const QByteArray member = sd_bus_message_get_member(call);
    const auto refuse = [call](const char* name) {
        const int isAsked = sd_bus_message_get_allow_interactive_authorization(call);
        return sd_bus_reply_method_errorf(call, name, "%%1 %d", isAsked);
    };
    if (member == "Hello")
        return sd_bus_reply_method_return(call, "s", ":1.1");
    // A real bus would first try to start one.
    if (role == "no systemd" && sd_bus_message_get_auto_start(call) == 0)
        return refuse(SD_BUS_ERROR_SERVICE_UNKNOWN);
    if (role == "no systemd" || role == "mute systemd")
        return 0;
    if (member == "Subscribe" || member == "AddMatch" || member == "RefUnit")
        return sd_bus_reply_method_return(call, nullptr);
    if (member == "StartUnit")
        return refuse(role);
    if (role == "refusing systemd")
        return refuse(SD_BUS_ERROR_ACCESS_DENIED);
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
        return sd_bus_send(nullptr, reply, nullptr);
    }
    if (role == "lost connection")
        ::_exit(0);
    static int calls = 0; // one property is gone, the next is not of its type
    return ++calls % 2 == 0 ? refuse(SD_BUS_ERROR_UNKNOWN_OBJECT)
                            : sd_bus_reply_method_return(call, "v", "b", 1);
}

/// Is the bus of the case `role` at `path`, in a process of its own that closes its standard output
/// as soon as there is one; serves one peer after another, each until it hangs up.
void serve(QByteArray role, const QString& path)
{
    QLocalServer server;
    if (role != "nobody")
        server.listen(path);
    ::close(STDOUT_FILENO);
    if (role == "silent bus")
        test::waitForEnd();
    while (server.waitForNewConnection(-1)) {
        QLocalSocket* const peer = server.nextPendingConnection();
        peer->write(QByteArray(role == "garbage" ? 100'000 : 0, '\xff'));
        peer->waitForBytesWritten();
        sd_bus* bus = nullptr;
        sd_bus_new(&bus);
        const int handle = ::dup(static_cast<int>(peer->socketDescriptor()));
        sd_bus_set_fd(bus, handle, handle);
        sd_bus_set_server(bus, 1, SD_ID128_MAKE(1, 2, 3, 4, 5, 6, 7, 8, 9, a, b, c, d, e, f, 0));
        const auto filter = [](sd_bus_message* call, void* data, sd_bus_error*) {
            answer(*static_cast<const QByteArray*>(data), call);
            return 1;
        };
        sd_bus_add_filter(bus, nullptr, filter, &role);
        int result = sd_bus_start(bus);
        while (result >= 0 && sd_bus_is_open(bus) > 0)
            result = sd_bus_process(bus, nullptr) == 0 ? sd_bus_wait(bus, UINT64_MAX) : 0;
        sd_bus_close_unref(bus);
    }
}

QStringList listed(const char* keys)
{
    return test::Client().call(u"list_services"_s).rows(u"entries"_s, keys);
}

/// Makes the units that are changed below, those that are listed, and 300 others: more than a
/// system bus lets wait, and slow, since systemd has to load each.
constexpr auto makeUnits = R"(
unit() { printf "[Unit]\n$2\n[Service]\nExecStart=${4:-/bin/sleep infinity}\n$3\n" >$1.service; }
install='[Install]\nWantedBy=default.target'
mkdir -p ~/.local/share/systemd/user ~/linked
cd ~/linked
unit c-linked '' "$install"
unit c-passing '' "$install"
cd ~/.local/share/systemd/user
unit c-run '' "$install"
unit c-plain
unit c-fails '' Type=oneshot /bin/false
unit c-ends '' '' /bin/false
unit c-once '' Type=oneshot /bin/true
unit c-needs 'Requires=c-fails.service\nAfter=c-fails.service'
unit c-unmet ConditionPathExists=/nowhere
unit c-slow '' 'Type=notify\nTimeoutStartSec=infinity'
unit c-two
unit C-TWO
unit c-also '' "$install \\\\\n# comment\n \nAlso = c-mate.service \\\\\n;comment\nc-gone.socket"
unit c-mate '' "$install\nAlso=c-also.service c-plain.service"
mkdir c-mate.service.d
printf '[Install]\nAlso=c-far.service' >c-mate.service.d/far.conf
unit c-far '' "$install"
unit c-named '' "$install\nAlias=c-nick.service"
unit c-thief '' "$install\nAlias=c-plain.service"
systemctl --user -q enable ~/linked/c-linked.service
systemctl --user -q enable --runtime ~/linked/c-passing.service
cd ~/.config/systemd/user
unit c-conf '' "$install"
unit begins '' 'Type=notify\nTimeoutStartSec=infinity'
unit broken '' 'Type=oneshot' /bin/false
unit ends '' 'ExecStop=/bin/sleep infinity'
unit lost
unit needs 'Requires=run.service\nWants=gone.service'
unit of@ 'Description=<%%i>'
unit off '' "Type=oneshot\nExecStart=/bin/false\n$install" '@/bin/sh x -c true'
unit run 'Description=跑步 %%%%1\nDocumentation=man:a(1) https://b' "$install"
unit tied 'BindsTo=run.service\nRequisite=needs.service\nAfter=needs.service'
for i in $(seq 300); do unit many$i; done
ln -s run.service alias.service
ln -s /dev/null masked.service
systemctl --user daemon-reload
systemctl --user -q enable run
systemctl --user -q start ends lost needs tied 'of@1.2_3\x2d'
systemctl --user -q start broken 2>/dev/null
systemctl --user -q start --no-block begins
systemctl --user -q stop --no-block ends
printf '%s\n' '[Service]' Type=oneshot 'ExecStart=/bin/sh -c "a  \x22b\x22"' \
    'ExecStart=/bin/echo "it\x27s" a\\b "c;" "\t\x01" "" \; 服' >says.service
rm lost.service
systemctl --user daemon-reload
systemd-run --user -q --unit=passing --description=Passing /bin/sleep infinity
)";

/// How they are listed: name, state, start type, and the texts.
constexpr auto ownUnits = R"(
begins|启动中…|手动|begins.service||/bin/sleep infinity
broken|已停止|手动|broken.service||/bin/false
ends|停止中…|手动|ends.service||/bin/sleep infinity
lost|运行中|未知|lost.service||
masked|已停止|已禁用|masked.service||
needs|运行中|手动|needs.service||/bin/sleep infinity
of@1.2_3\x2d|运行中|手动|<1.2_3\x2d>||/bin/sleep infinity
off|已停止|手动|off.service||/bin/sh -c true; /bin/false
passing|运行中|手动|Passing||/bin/sleep infinity
run|运行中|自动|跑步 %1|man:a(1) https://b|/bin/sleep infinity
)"
                          "says|已停止|手动|says.service||/bin/sh -c \"a  \\\"b\\\"\"; /bin/echo "
                          "\"it's\" "
                          R"("a\\b" "c;" "\x09\x01" "" ";" 服
tied|运行中|手动|tied.service||/bin/sleep infinity
)";

/// What is done, whether it is done, what it says, and what systemctl says then: "masked-runtime"
/// of all that is masked, since this home is in /run. A line that ends
/// with a backslash goes on in the next.
constexpr auto changes = R"(
start c-run|+服务已启动|disabled active
stop c-run|+服务已停止|disabled inactive
auto c-run|+启动类型已改为自动|enabled inactive
disabled c-run|+启动类型已改为已禁用|masked-runtime inactive
start c-run|-启动服务失败: systemd 拒绝: Unit c-run.service is masked.|masked-runtime inactive
disable c-run|+服务已被屏蔽,不会自动启动|masked-runtime inactive
mask --runtime c-run|-|masked-runtime inactive
enable c-run|+启动类型已改为自动|enabled inactive
manual c-run|+启动类型已改为手动|disabled inactive
enable --runtime c-run|-|enabled-runtime inactive
disable c-run|+启动类型已改为手动|disabled inactive
delayed c-run|-systemd 没有延迟自动启动,请改用自动|disabled inactive
invalid c-run|-无效的启动类型|disabled inactive
auto c-plain|-设置启动类型失败: 单元没有可用的 [Install] 段 (单元文件状态: static)|static inactive
disabled c-plain|+启动类型已改为已禁用|masked-runtime inactive
auto c-plain|-设置启动类型只完成了一部分: 单元没有可用的 [Install] 段 (单元文件状态: static)|static inactive
disabled c-conf|-设置启动类型失败: 单元文件就在配置目录中,屏蔽会替换它\
    (File /run/kv/home/.config/systemd/user/c-conf.service already exists)|disabled inactive
manual c-linked|-设置启动类型失败: 单元文件是链接到配置目录的,禁用会移除整个单元|enabled inactive
manual c-passing|-设置启动类型失败: 单元文件是链接到配置目录的,禁用会移除整个单元|enabled-runtime inactive
start c-fails|-启动服务失败: systemd 的作业结果为 failed,服务结果为 exit-code|static failed
start c-ends|-启动服务失败: 启动后没有保持运行,服务结果为 exit-code|static failed
start c-needs|-启动服务失败: systemd 的作业结果为 dependency|static inactive
start c-unmet|-启动服务失败: 单元的启动条件不满足|static inactive
start c-once|+服务已启动,并已执行完毕|static inactive
disabled c-once|+启动类型已改为已禁用|masked-runtime inactive
slowly c-slow|-启动服务失败: 1 秒后仍未完成,systemd 的作业还在进行|static activating
stop c-slow|+服务已停止|static inactive
auto c-also|-设置启动类型失败: 启用它会同时改变其他单元: c-far.service, c-mate.service\
    (可由用户自行运行 systemctl enable c-also.service)|disabled inactive
enable -q c-far|-|enabled inactive
enable -q c-mate|-|enabled inactive
enable c-also|+启动类型已改为自动|enabled inactive
manual c-also|-设置启动类型失败: 禁用它会同时改变其他单元: c-far.service, c-mate.service\
    (可由用户自行运行 systemctl disable c-also.service)|enabled inactive
disabled c-also|+启动类型已改为已禁用|masked-runtime inactive
manual c-also|-设置启动类型失败: 禁用它会同时改变其他单元: c-far.service, c-mate.service\
    (可由用户自行运行 systemctl unmask c-also.service &&\
    systemctl disable c-also.service)|masked-runtime inactive
disable -q c-far|-|disabled inactive
auto c-also|-设置启动类型失败: 启用它会同时改变其他单元: c-far.service\
    (可由用户自行运行 systemctl unmask c-also.service &&\
    systemctl enable c-also.service)|masked-runtime inactive
enable -q c-far|-|enabled inactive
auto c-also|+启动类型已改为自动|enabled inactive
auto c-named|+启动类型已改为自动|enabled inactive
manual c-named|+启动类型已改为手动|disabled inactive
auto c-thief|-设置启动类型失败: 启用它会同时改变其他单元: c-plain.service\
    (可由用户自行运行 systemctl enable c-thief.service)|disabled inactive
start c-two|-有多个服务的名称只有大小写不同,无法区分: C-TWO, c-two|static inactive
)";

/// Does what a line above begins with, the name in capitals; the line as it turns out.
QString changeService(const QString& line)
{
    static const QStringList types{
        {}, {}, u"auto"_s, u"delayed"_s, u"manual"_s, u"disabled"_s, {}, u"invalid"_s};
    auto& services = Singleton<ServiceManagerService>::instance();
    const QString command = line.section(u'|', 0, 0);
    const QString action = command.section(u' ', 0, 0);
    const QString unit = command.section(u' ', -1);
    const QString name = unit.toUpper();
    const OpResult result =
        command.contains(" -"_L1)
            ? OpResult{false, shell("systemctl --user -q " + command.toUtf8())}
        : action == u"start"  ? services.startService(name)
        : action == u"slowly" ? startService(name, {unit}, {.job = std::chrono::seconds(1)})
        : action == u"stop"   ? services.stopService(name)
        : types.contains(action)
            ? services.setStartType(name, ServiceStartType(types.indexOf(action)))
            : services.setEnabled(name, action == u"enable");
    const QString state =
        shell("echo $(for i in enabled active; do systemctl --user is-$i $0 2>&1; done)", {unit});
    return command + u'|' + (result.ok ? u'+' : u'-') + result.message + u'|' + state.trimmed();
}

const QString lost = u"系统总线连接中断: "_s;
const QString damaged = u"systemd 的服务列表无法识别"_s;
const QString denied = u"启动服务失败: 没有权限 (%1 1)"_s;
/// How what is told begins: of a bus that has no list, or of the start of a service after that.
const test::Cases<QString> troubles{
    {"nobody", u"无法连接系统总线: "_s},
    {"silent bus", u"系统总线在 0.5 秒内没有应答"_s},
    {"garbage", lost},
    {"no systemd", u"系统总线上没有 systemd"_s},
    {"mute systemd", u"systemd 在 0.5 秒内没有应答"_s},
    {"refusing systemd", u"systemd 拒绝列出服务: %1 0"_s},
    {"other type", damaged},
    {"endless list", damaged},
    {"lost connection", lost},
    {SD_BUS_ERROR_ACCESS_DENIED, denied},
    {SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED, denied},
    {"org.freedesktop.PolicyKit1.Error.NotAuthorized", denied},
    {"org.freedesktop.systemd1.NoSuchUnit", u"启动服务失败: systemd 拒绝: %1 1"_s},
};

// clang-format off
/// How the units of a folder of "hi" and "lo" are made, and what is found.
const test::Cases<QByteArray, QString> enabledTooCases{
    {"parts of the name",
     "w $template 'Also=%j-%i.socket %p%%.socket \\\n#'; w lo/a-q.socket $wanted", u"a-q.socket"_s},
    {"a template's instance", "w $template Also=t@.service; w hi/t@.service Also=%i.x",
     u"t@.service 的 Also= 中有无法展开的 %i.x"_s},
    {"of the machine", "w $unit Also=%H.service",
     u"my-a@q.service 的 Also= 中有无法展开的 %H.service"_s},
    {"endless", "w $template Also=1@%i.service; for i in $(seq 300);"
     "do w hi/$i@.service Also=$((i + 1))@%i.service; done", u"相关的单元过多"_s},
    {"large", "truncate -s 2M $template", u"无法读取 hi/my-a@.service: "_s},
    {"no unit files", "w $unit 'Also=b.service ../c.service'; mkfifo hi/b.service;"
     "w lo/b.service $wanted; w c.service $wanted", {}},
    {"drop-ins", "ln -s /dev/null $unit; w lo/my-a@.service; w lo/b.service $wanted;"
     "w lo/c.service $wanted; w lo/my-a@q.service.d/x.conf Also=b.service;"
     "ln -s /dev/null $unit.d/x.conf; w lo/my-a@.service.d/y.conf Also=c.service", u"c.service"_s},
    {"aliases", "w $unit 'Also=b@%i.service\nAlias=d@%i.service e@%i.service f.x g.x';"
     "ln -s /gone/c@.service hi/b@.service; w lo/c@.service $wanted; w lo/d@.service;"
     "ln -s /dev/null lo/g.x; ln -s my-a@.service lo/e@.service", u"c@q.service d@q.service g.x"_s},
};
// clang-format on

} // namespace

class TestLinuxServices : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void unitNamesAreShortened()
    {
        const QByteArray longest(247, 'x');
        for (const QByteArray& name : {longest, QByteArray("a@b@c"), QByteArray("a.service")}) {
            QCOMPARE(serviceNameOf(name + ".service"), std::optional(QString::fromUtf8(name)));
            QCOMPARE(unitNameOf(QString::fromUtf8(name)), name + ".service");
        }
        QByteArray names = longest + "x.service|@.service|a@.service|@a.service|a b.service|"
                                     "a\n.service|\xff.service|\xe6\x9c\x8d.service|a?b.service|"
                                     "../a.service|.service|service||a|a.socket|a.serviceX";
        for (const QByteArray& name : names.replace('?', '\0').split('|'))
            QVERIFY2(!serviceNameOf(name), name.toHex().constData());
    }

    void hostileListsAreMerged()
    {
        ListedServices services;
        addUnitFile(services, "/a/u7.service", "masked");
        addLoadedUnit(services, "u7.service", "\xff%1", "loaded", "");
        addUnitFile(services, "/b/u7.service", "\xff");
        addLoadedUnit(services, "u8.service", "", "not-found", "inactive");
        addUnitFile(services, "", "");
        addUnitFile(services, "/", "enabled");
        addUnitFile(services, "/x/.service", "enabled");
        QCOMPARE(services.size(), 1);
        const ListedService service = services.value(u"u7"_s);
        QCOMPARE(service.item.displayName, u"\ufffd%1"_s);
        QVERIFY(service.item.state == ServiceState::Unknown &&
                service.item.startType == ServiceStartType::Unknown);
    }

    void troubleIsTold_data() { test::addRows(troubles); }
    void troubleIsTold()
    {
        const auto& [role, told] = test::currentRow(troubles);
        const QTemporaryDir directory;
        const QString path = directory.filePath(u"bus"_s);
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + QFile::encodeName(path));
        const test::Child bus([name = role, &path] { serve(name, path); });
        // Only those who say nothing make it wait until the end.
        const std::chrono::milliseconds limit(told.contains(u" 0.5 "_s) ? 500 : 20'000);
        const QDeadlineTimer deadline(15'000);
        QString error;
        QStringList shown;
        const QList<ServiceItem> services = listServices(limit, shown, &error);
        QVERIFY(!deadline.hasExpired());
        if (told.startsWith(u"启动"_s)) {
            QCOMPARE(error, QString());
            error = startService(u"A"_s, shown, {}).message;
        }
        QVERIFY2(error.startsWith(told), qPrintable(error));
        QCOMPARE(services.size(), told.startsWith(u"启动"_s) ? 2 : 0);
        QCOMPARE(shown.size(), services.size());
    }

    void whatIsEnabledTooIsFound_data() { test::addRows(enabledTooCases); }
    void whatIsEnabledTooIsFound()
    {
        const auto& [name, script, found] = test::currentRow(enabledTooCases);
        const QTemporaryDir folder;
        const QByteArray base = QFile::encodeName(folder.path()) + '/';
        shell("cd $0; template=hi/my-a@.service unit=hi/my-a@q.service wanted=WantedBy=x.target;"
              "mkdir -p $unit.d lo/my-a@q.service.d lo/my-a@.service.d;"
              "w() { printf '[Install]\\n%s\\n' \"$2\" >$1; }\n" +
                  script,
              {folder.path()});
        const EnabledWith with = unitsEnabledWith("my-a@q.service", {base + "hi", base + "lo"});
        const QByteArray units = (with.also + with.replaced).join(' ');
        QString told = with.problem.isEmpty() ? QString::fromUtf8(units) : with.problem;
        told.remove(QString::fromUtf8(base));
        QVERIFY2(found.isEmpty() ? told.isEmpty() : told.startsWith(found), qPrintable(told));
    }
};

/// Beside a systemd of its own.
class TestRealServices : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { shell(makeUnits); }

    void realUnitsAreListed()
    {
        const QRegularExpression own(u"^(alias|begins|broken|ends|gone|lost|masked|needs|of@.*|"
                                     "off|passing|run|says|tied)[|]"_s);
        const QStringList expected = linesOf(QString::fromUtf8(ownUnits));
        const auto rows = [&own] {
            return listed("name state start_type display_name description binary_path").filter(own);
        };
        // On a busy machine a listing may take longer than its limit, and is then an error.
        (void)QTest::qWaitFor([&] { return rows() == expected; }, 120'000);
        QCOMPARE(rows(), expected);
        const QStringList programs = listed("name binary_path");
        QCOMPARE(programs.filter(QRegularExpression(u"^many.*/sleep infinity$"_s)).size(), 300);
        QCOMPARE(listed("name pid").filter(QRegularExpression(u"^(begins|dbus|off|run)[|]"_s)),
                 linesOf(shell("for i in begins dbus off run; do "
                               "echo $i'|'$(systemctl --user show -p MainPID --value $i); done")));

        const auto& services = Singleton<ServiceManagerService>::instance();
        QCOMPARE(services.enumDependents(u"run"_s), (QStringList{u"needs"_s, u"tied"_s}));
        QCOMPARE(services.queryDependencies(u"tied"_s), (QStringList{u"needs"_s, u"run"_s}));
        QCOMPARE(services.queryDependencies(u"of@"_s), QStringList());
    }

    void realUnitsAreChanged()
    {
        QVERIFY(!Singleton<ServiceManagerService>::instance().listAll().isEmpty());
        const QString files = shell("cat ~/.config/systemd/user/c-*.service");
        const QByteArray lines = QByteArray(changes).replace("\\\n   ", "");
        for (const QString& line : linesOf(QString::fromUtf8(lines))) {
            // Newer versions of systemd quote paths, and end no sentence with a full stop.
            QCOMPARE(changeService(line).remove(u'\'').replace(u".)"_s, u")"_s), line);
        }
        QCOMPARE(shell("cat ~/.config/systemd/user/c-*.service"), files);
        QCOMPARE(shell("readlink ~/.config/systemd/user/c-once.service"), u"/dev/null\n"_s);
    }
};

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    TestLinuxServices scripted;
    TestRealServices real;
    const bool isReal = !qEnvironmentVariableIsEmpty("KORVANE_PRIVATE_SYSTEMD");
    return QTest::qExec(isReal ? static_cast<QObject*>(&real) : &scripted, argc, argv);
}

#include "tst_linux_services.moc"
