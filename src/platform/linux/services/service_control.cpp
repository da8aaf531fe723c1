// Changes to services: systemd's jobs, and the files that say how its units start.
#include "platform/linux/services/services.h"
#include "platform/linux/services/systemd_bus.h"
#include "platform/linux/services/unit_files.h"
#include "platform/linux/sys/text.h"
#include "platform/portable/shown_services.h"

#include <QThread>

#include <algorithm>
#include <array>

namespace korvane {

using namespace Qt::StringLiterals;

namespace linux_platform {

namespace {

using std::chrono::milliseconds;

/// A service that ends this soon after its start has not started: most errors in its settings show
/// by then, and for a plain program systemd's job is done as soon as there is a process.
constexpr milliseconds settling(300);

constexpr auto unitInterface = "org.freedesktop.systemd1.Unit";
constexpr auto serviceInterface = "org.freedesktop.systemd1.Service";

/// The bus's text for a call that was refused, in words of ours that say by whom.
QString refusalOf(sd_bus_message* reply)
{
    const QByteArrayView name = sd_bus_message_get_error(reply)->name;
    const bool isDenied = name == SD_BUS_ERROR_ACCESS_DENIED || name == SD_BUS_ERROR_AUTH_FAILED ||
                          name == SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED ||
                          name.startsWith("org.freedesktop.PolicyKit1.Error.");
    return (isDenied ? u"没有权限 (%1)"_s : u"systemd 拒绝: %1"_s).arg(errorMessage(reply));
}

QString inSeconds(milliseconds limit)
{
    return QString::number(std::chrono::duration<double>(limit).count());
}

/// The changes of one unit, over a connection of their own. Each step that fails says why in
/// m_problem.
class UnitControl
{
public:
    UnitControl(const QString& serviceName, const ControlLimits& limits)
        : m_unit(unitNameOf(serviceName)), m_limits(limits), m_bus(limits.asking)
    {
    }

    OpResult start();
    OpResult stop();
    OpResult setStartType(ServiceStartType type);
    OpResult disable();

private:
    bool fail(const QString& problem)
    {
        m_problem = problem;
        return false;
    }

    /// Makes the call; true when m_reply is what was asked for.
    bool receive(UniqueMessage call, milliseconds limit);

    /// Asks the manager for what needs no permission.
    template <typename... Arguments>
    bool ask(const char* member, const char* types, Arguments... arguments)
    {
        UniqueMessage call = m_bus.managerCall(member);
        sd_bus_message_append(call.get(), types, arguments...);
        return receive(std::move(call), m_limits.asking);
    }

    /// Has the manager change something, for which a person may be asked.
    template <typename... Arguments>
    bool change(const char* member, const char* types, Arguments... arguments)
    {
        UniqueMessage call = m_bus.managerCall(member);
        sd_bus_message_append(call.get(), types, arguments...);
        sd_bus_message_set_allow_interactive_authorization(call.get(), 1);
        if (receive(std::move(call), m_limits.authorizing))
            return true;
        if (m_bus.isOutOfTime()) // closing the connection does not withdraw the question
            m_problem += u",之后仍可能生效"_s;
        return false;
    }

    bool runJob(const char* member);
    bool isRunning();
    bool isUnmet();
    QByteArray property(const char* interface, const char* name);
    QString resultOfService();

    QByteArray fileStateOf(const QByteArray& unitName);
    bool readFileState();
    bool enablesNoOther();
    bool disablesNoOther();
    bool failFor(const QByteArrayList& others, const QString& action, const char* command);
    bool applyStartType(ServiceStartType type);
    bool changeBoth(const char* member);
    bool mask();

    QByteArray m_unit;
    ControlLimits m_limits;
    SystemdBus m_bus;
    UniqueMessage m_reply;
    QString m_problem;
    QString m_note; ///< What the message of a success adds.
    QByteArray m_fileState;
    QByteArray m_mask;     ///< The state of a unit's file that was masked.
    bool m_isKept = false; ///< systemd keeps the unit in memory until this is done.
    bool m_hasChangedFiles = false;
    bool m_isTakenBack = false; ///< The files are again as they were.
};

bool UnitControl::receive(UniqueMessage call, milliseconds limit)
{
    m_bus.allow(limit);
    m_reply = m_bus.callOne(std::move(call));
    if (!m_reply)
        return fail(m_bus.error());
    return sd_bus_message_is_method_error(m_reply.get(), nullptr) <= 0 ||
           fail(refusalOf(m_reply.get()));
}

/// Has the manager make a job of the unit, and waits until that is done.
bool UnitControl::runJob(const char* member)
{
    const char* job = nullptr;
    if (!ask("Subscribe", "") || !receive(m_bus.matchCall("JobRemoved"), m_limits.asking) ||
        !change(member, "ss", m_unit.constData(), "replace"))
        return false;
    if (sd_bus_message_read(m_reply.get(), "o", &job) <= 0)
        return fail(u"systemd 的应答无法识别"_s);
    QString result;
    m_bus.allow(m_limits.job);
    m_bus.awaitSignal(sd_bus_message_get_sender(m_reply.get()), [&](sd_bus_message* signal) {
        const char* removed = nullptr;
        const char* outcome = nullptr;
        if (sd_bus_message_is_signal(signal, nullptr, "JobRemoved") <= 0 ||
            sd_bus_message_read(signal, "uoss", nullptr, &removed, nullptr, &outcome) <= 0 ||
            QByteArrayView(removed) != job)
            return false;
        result = briefText(outcome);
        return true;
    });
    if (m_bus.isOutOfTime())
        return fail(u"%1 秒后仍未完成,systemd 的作业还在进行"_s.arg(inSeconds(m_limits.job)));
    if (!m_bus.error().isEmpty())
        return fail(m_bus.error());
    return result == u"done" || fail(u"systemd 的作业结果为 %1"_s.arg(result) + resultOfService());
}

/// The text of a property; empty when there is none.
QByteArray UnitControl::property(const char* interface, const char* name)
{
    const char* text = nullptr;
    if (!receive(m_bus.propertyCall(m_unit, interface, name), m_limits.asking))
        return {};
    if (sd_bus_message_read(m_reply.get(), "v", "s", &text) <= 0)
        m_problem = u"systemd 的应答无法识别"_s;
    return text;
}

/// Whether systemd did not even try, since a condition of the unit was not met.
bool UnitControl::isUnmet()
{
    int isMet = 1;
    return m_isKept &&
           receive(m_bus.propertyCall(m_unit, unitInterface, "ConditionResult"), m_limits.asking) &&
           sd_bus_message_read(m_reply.get(), "v", "b", &isMet) > 0 && isMet == 0;
}

/// Why the service itself ended, where it did not end well.
QString UnitControl::resultOfService()
{
    const QByteArray result = property(serviceInterface, "Result");
    return result.isEmpty() || result == "success" ? QString()
                                                   : u",服务结果为 %1"_s.arg(briefText(result));
}

/// Whether the service does what it was started for.
bool UnitControl::isRunning()
{
    QThread::msleep(settling.count());
    const QByteArray state = property(unitInterface, "ActiveState");
    if (state.isEmpty())
        return false;
    if (serviceStateFrom(state) == ServiceState::Running)
        return true;
    if (state == "inactive" && isUnmet())
        return fail(u"单元的启动条件不满足"_s);
    if (state == "inactive" && property(serviceInterface, "Type") == "oneshot") {
        m_note = m_isKept ? u",并已执行完毕"_s : u",现在没有在运行"_s;
        return true;
    }
    return fail(u"启动后没有保持运行"_s + resultOfService());
}

OpResult UnitControl::start()
{
    // Else systemd forgets a unit that has ended, and what came of it. Only who may start it without
    // being asked for a password may do this.
    m_isKept = ask("RefUnit", "s", m_unit.constData());
    if (!runJob("StartUnit") || !isRunning())
        return {false, u"启动服务失败: %1"_s.arg(m_problem)};
    return {true, u"服务已启动"_s + m_note};
}

OpResult UnitControl::stop()
{
    if (!runJob("StopUnit"))
        return {false, u"停止服务失败: %1"_s.arg(m_problem)};
    return {true, u"服务已停止"_s};
}

/// Asks what the files say now; the unit's property would say what they said when it was loaded.
/// Empty when it is not told.
QByteArray UnitControl::fileStateOf(const QByteArray& unitName)
{
    const char* state = nullptr;
    if (ask("GetUnitFileState", "s", unitName.constData()) &&
        sd_bus_message_read(m_reply.get(), "s", &state) <= 0)
        m_problem = u"systemd 的应答无法识别"_s;
    return state;
}

bool UnitControl::readFileState()
{
    m_fileState = fileStateOf(m_unit);
    return !m_fileState.isEmpty();
}

/// Refuses a change that the user was not asked about, and says who else can make it.
bool UnitControl::failFor(const QByteArrayList& others, const QString& action, const char* command)
{
    if (others.isEmpty())
        return true;
    // No name has anything else in it that a shell would change.
    const QByteArray name = m_unit.contains('\\') ? '\'' + m_unit + '\'' : m_unit;
    const QByteArray unit = m_unit.startsWith('-') ? "-- " + name : name;
    const QByteArray unmasking =
        m_mask.isEmpty() ? QByteArray() : "systemctl unmask " + unit + " && ";
    return fail(u"%1它会同时改变其他单元: %2 (可由用户自行运行 %3systemctl %4 %5)"_s.arg(
        action, textFromSystem(others.join(", ")), textFromSystem(unmasking),
        QLatin1String(command), textFromSystem(unit)));
}

/// Whether enabling changes this unit only. systemd has no dry run of it.
bool UnitControl::enablesNoOther()
{
    if (!receive(m_bus.managerPropertyCall("UnitPath"), m_limits.asking))
        return false;
    if (sd_bus_message_enter_container(m_reply.get(), SD_BUS_TYPE_VARIANT, "as") <= 0)
        return fail(u"systemd 的应答无法识别"_s);
    const EnabledWith with = unitsEnabledWith(m_unit, readTexts(m_reply.get()));
    if (!with.problem.isEmpty())
        return fail(u"无法确定启用它会改变哪些单元: %1"_s.arg(with.problem));
    // Of what is enabled until the next boot only, it would last.
    static constexpr std::array<QByteArrayView, 4> staying{"enabled", "static", "masked",
                                                           "masked-runtime"};
    QByteArrayList others = with.replaced;
    for (const QByteArray& unit : with.also) {
        if (std::find(staying.begin(), staying.end(), fileStateOf(unit)) == staying.end())
            others.append(unit);
        if (!m_bus.error().isEmpty())
            return false;
    }
    std::sort(others.begin(), others.end());
    return failFor(others, u"启用"_s, "enable");
}

/// Takes back what lasts, and what lasts until the next boot.
bool UnitControl::changeBoth(const char* member)
{
    for (const int isRuntime : {0, 1}) {
        if (!change(member, "asb", 1, m_unit.constData(), isRuntime))
            return false;
        m_hasChangedFiles = true;
    }
    return true;
}

bool UnitControl::mask()
{
    if (change("MaskUnitFiles", "asbb", 1, m_unit.constData(), 0, 0))
        return m_hasChangedFiles = true;
    if (m_reply &&
        sd_bus_message_is_method_error(m_reply.get(), "org.freedesktop.systemd1.UnitExists") > 0)
        m_problem = u"单元文件就在配置目录中,屏蔽会替换它 (%1)"_s.arg(errorMessage(m_reply.get()));
    return false;
}

/// Whether disabling removes nothing but this unit's links in the folders of others. A file that was
/// linked into the configuration folder would go with them, and the unit with it.
bool UnitControl::disablesNoOther()
{
    QByteArrayList others;
    for (const int isRuntime : {0, 1}) {
        const char* link = nullptr;
        if (!ask("GetUnitFileLinks", "sb", m_unit.constData(), isRuntime))
            return false;
        sd_bus_message_enter_container(m_reply.get(), SD_BUS_TYPE_ARRAY, "s");
        while (sd_bus_message_read(m_reply.get(), "s", &link) > 0) {
            const QByteArrayView path(link);
            if (path.endsWith("/system/" + m_unit) || path.endsWith("/user/" + m_unit))
                return fail(u"单元文件是链接到配置目录的,禁用会移除整个单元"_s);
            const QByteArray owner = ownerOfLink(path.toByteArray(), m_unit);
            if (owner != m_unit && !others.contains(owner))
                others.append(owner);
        }
    }
    std::sort(others.begin(), others.end());
    return failFor(others, u"禁用"_s, "disable");
}

bool UnitControl::applyStartType(ServiceStartType type)
{
    static constexpr std::array<QByteArrayView, 6> withInstall{
        "enabled", "enabled-runtime", "disabled", "linked", "linked-runtime", "alias"};
    if (!readFileState())
        return false;
    if (type == ServiceStartType::Disabled)
        return mask();
    if (startTypeFrom(m_fileState) == ServiceStartType::Disabled)
        m_mask = m_fileState;
    if (type == ServiceStartType::Auto && !enablesNoOther())
        return false;
    if (!m_mask.isEmpty() && !(changeBoth("UnmaskUnitFiles") && readFileState()))
        return false;
    if (type == ServiceStartType::Auto) {
        if (std::find(withInstall.begin(), withInstall.end(), m_fileState) == withInstall.end())
            return fail(
                u"单元没有可用的 [Install] 段 (单元文件状态: %1)"_s.arg(briefText(m_fileState)));
        return change("EnableUnitFiles", "asbb", 1, m_unit.constData(), 0, 0) &&
               (m_hasChangedFiles = true);
    }
    if (startTypeFrom(m_fileState) == ServiceStartType::Manual)
        return true;
    if (disablesNoOther())
        return changeBoth("DisableUnitFiles");
    // Else a unit that did not start by itself would now.
    const QString problem = m_problem;
    const int isRuntime = m_mask == "masked-runtime" ? 1 : 0;
    m_isTakenBack =
        !m_mask.isEmpty() && change("MaskUnitFiles", "asbb", 1, m_unit.constData(), isRuntime, 0);
    return fail(problem);
}

OpResult UnitControl::setStartType(ServiceStartType type)
{
    if (type == ServiceStartType::AutoDelayed)
        return {false, u"systemd 没有延迟自动启动,请改用自动"_s};
    if (type != ServiceStartType::Auto && type != ServiceStartType::Manual &&
        type != ServiceStartType::Disabled)
        return {false, u"无效的启动类型"_s};

    bool isSet = applyStartType(type) && readFileState();
    if (isSet && startTypeFrom(m_fileState) != type)
        isSet = fail(u"单元文件状态仍为 %1"_s.arg(briefText(m_fileState)));
    const QString problem = m_problem;
    QString note;
    if (m_hasChangedFiles && !change("Reload", ""))
        note = u",但 systemd 重新加载配置失败: %1"_s.arg(m_problem);
    if (isSet)
        return {true, u"启动类型已改为%1"_s.arg(serviceStartTypeLabel(type)) + note};
    return {false, (m_hasChangedFiles && !m_isTakenBack ? u"设置启动类型只完成了一部分: %1"_s
                                                        : u"设置启动类型失败: %1"_s)
                           .arg(problem) +
                       note};
}

OpResult UnitControl::disable()
{
    if (readFileState() && startTypeFrom(m_fileState) == ServiceStartType::Disabled)
        return {true, u"服务已被屏蔽,不会自动启动"_s};
    return setStartType(ServiceStartType::Manual);
}

/// Does `change` to the unit that the user was shown for `name`.
template <typename Change>
OpResult changeShown(const QString& name, const QStringList& shown, const ControlLimits& limits,
                     Change change)
{
    return platform::changeShownService(name, shown, [&](const QString& shownName) {
        UnitControl unit(shownName, limits);
        return change(unit);
    });
}

} // namespace

OpResult startService(const QString& name, const QStringList& shown, const ControlLimits& limits)
{
    return changeShown(name, shown, limits, [](UnitControl& unit) { return unit.start(); });
}

} // namespace linux_platform

using linux_platform::changeShown;
using linux_platform::UnitControl;

OpResult platform::startService(const QString& name, const QStringList& shown)
{
    return linux_platform::startService(name, shown, {});
}

OpResult platform::stopService(const QString& name, const QStringList& shown)
{
    return changeShown(name, shown, {}, [](UnitControl& unit) { return unit.stop(); });
}

OpResult platform::setServiceEnabled(const QString& name, bool enabled, const QStringList& shown)
{
    return changeShown(name, shown, {}, [enabled](UnitControl& unit) {
        return enabled ? unit.setStartType(ServiceStartType::Auto) : unit.disable();
    });
}

OpResult platform::setServiceStartType(const QString& name, ServiceStartType type,
                                       const QStringList& shown)
{
    return changeShown(name, shown, {},
                       [type](UnitControl& unit) { return unit.setStartType(type); });
}

} // namespace korvane
