// Task Scheduler 2.0: the folders by COM, each task by its definition in XML.
#include "platform/windows/startup/scheduled_tasks.h"

#include "platform/startup.h"
#include "platform/windows/sys/com.h"
#include "platform/windows/sys/command_line.h"
#include "platform/windows/sys/limited_call.h"
#include "platform/windows/sys/text.h"

#include <QXmlStreamReader>

#include <taskschd.h>

namespace korvane {

using namespace Qt::StringLiterals;

namespace windows_platform {

namespace {

constexpr int maxDepth = 16;
constexpr qsizetype maxFolders = 2'000;
constexpr int maxTasks = 10'000;
constexpr UINT longestText = 1024 * 1024;

struct TaskListing
{
    QList<StartupItem> items;
    QString error;
};

VARIANT number(LONG value)
{
    VARIANT variant{};
    variant.vt = VT_I4;
    variant.lVal = value;
    return variant;
}

/// A text that `call(&raw)` gives; empty on a failure.
template <typename Call> QString comText(Call call)
{
    wchar_t* raw = nullptr;
    const HRESULT result = call(&raw);
    const ComText owner(raw);
    if (FAILED(result) || raw == nullptr)
        return {};
    return fromWide({raw, std::min(SysStringLen(raw), longestText)});
}

ComPtr<ITaskFolder> folderAt(ITaskService& service, const QString& path)
{
    const ComText name(SysAllocString(wide(path)));
    return comResult<ITaskFolder>(
        [&](ITaskFolder** folder) { return service.GetFolder(name.get(), folder); });
}

/// Reads folder after folder; what cannot be opened is left out.
class TaskReader
{
public:
    explicit TaskReader(ITaskService& service) : m_service(service) {}

    TaskListing read()
    {
        QStringList folders{u"\\"_s};
        for (qsizetype i = 0; i < folders.size() && i < maxFolders; ++i) {
            const auto folder = folderAt(m_service, folders[i]);
            if (!folder)
                continue;
            readTasks(*folder);
            if (folders[i].count(u'\\') <= maxDepth)
                folders += subfolders(*folder);
        }
        if (m_items.isEmpty() && FAILED(m_failure))
            return {{}, errorText(static_cast<DWORD>(m_failure))};
        return {m_items, {}};
    }

private:
    void readTasks(ITaskFolder& folder)
    {
        const auto tasks =
            comResult<IRegisteredTaskCollection>([&](IRegisteredTaskCollection** all) {
                return folder.GetTasks(TASK_ENUM_HIDDEN, all);
            });
        LONG count = 0;
        const HRESULT result = tasks ? tasks->get_Count(&count) : E_ACCESSDENIED;
        if (FAILED(result))
            m_failure = result;
        for (LONG i = 1; i <= count && m_tasks < maxTasks; ++i, ++m_tasks) {
            const auto task = comResult<IRegisteredTask>(
                [&](IRegisteredTask** one) { return tasks->get_Item(number(i), one); });
            if (task)
                addTask(*task);
        }
    }

    void addTask(IRegisteredTask& task)
    {
        auto item = itemOfTask(comText([&](wchar_t** xml) { return task.get_Xml(xml); }));
        if (!item)
            return;
        VARIANT_BOOL enabled = VARIANT_FALSE;
        item->name = comText([&](wchar_t** name) { return task.get_Name(name); });
        item->enabled =
            item->enabled && SUCCEEDED(task.get_Enabled(&enabled)) && enabled != VARIANT_FALSE;
        m_items.append(*item);
    }

    static QStringList subfolders(ITaskFolder& folder)
    {
        const auto folders = comResult<ITaskFolderCollection>(
            [&](ITaskFolderCollection** all) { return folder.GetFolders(0, all); });
        LONG count = 0;
        if (!folders || FAILED(folders->get_Count(&count)))
            return {};
        QStringList paths;
        for (LONG i = 1; i <= count && paths.size() < maxFolders; ++i) {
            const auto one = comResult<ITaskFolder>(
                [&](ITaskFolder** found) { return folders->get_Item(number(i), found); });
            if (one)
                paths += comText([&](wchar_t** path) { return one->get_Path(path); });
        }
        paths.removeAll(QString());
        return paths;
    }

    ITaskService& m_service;
    QList<StartupItem> m_items;
    int m_tasks = 0;
    HRESULT m_failure = S_OK;
};

TaskListing readAllTasks()
{
    const ComApartment apartment;
    const auto service = makeObject<ITaskService>(__uuidof(TaskScheduler));
    if (!service)
        return {{}, u"任务计划程序不可用"_s};
    const VARIANT none{};
    const HRESULT result = service->Connect(none, none, none, none);
    if (FAILED(result))
        return {{}, errorText(static_cast<DWORD>(result))};
    return TaskReader(*service).read();
}

/// What <Exec> says; leaves `xml` at its end.
void readProgram(QXmlStreamReader& xml, StartupItem& item)
{
    QString program;
    QString arguments;
    while (xml.readNextStartElement()) {
        if (xml.name() == "Command"_L1)
            program = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        else if (xml.name() == "Arguments"_L1)
            arguments = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        else
            xml.skipCurrentElement();
    }
    if (!item.command.isEmpty() || program.isEmpty())
        return;
    item.exePath = programPath(program);
    item.command = arguments.isEmpty() ? program : program + u' ' + arguments;
}

/// Whether a trigger is enabled, as it is unless it says otherwise.
bool isTriggerEnabled(QXmlStreamReader& xml)
{
    bool enabled = true;
    while (xml.readNextStartElement()) {
        if (xml.name() != "Enabled"_L1) {
            xml.skipCurrentElement();
            continue;
        }
        const QString text = xml.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
        enabled = text != "false"_L1 && text != "0"_L1;
    }
    return enabled;
}

} // namespace

std::optional<StartupItem> itemOfTask(const QString& xml)
{
    StartupItem item{StartupSource::hklm, StartupCategory::ScheduledTask, {}, {}, {}, false};
    bool isAtStart = false;
    QXmlStreamReader reader(xml);
    if (!reader.readNextStartElement() || reader.name() != "Task"_L1)
        return std::nullopt;
    while (reader.readNextStartElement()) {
        const bool isTriggers = reader.name() == "Triggers"_L1;
        if (!isTriggers && reader.name() != "Actions"_L1) {
            reader.skipCurrentElement();
            continue;
        }
        while (reader.readNextStartElement()) {
            if (isTriggers &&
                (reader.name() == "BootTrigger"_L1 || reader.name() == "LogonTrigger"_L1)) {
                isAtStart = true;
                item.enabled = isTriggerEnabled(reader) || item.enabled;
            } else if (!isTriggers && reader.name() == "Exec"_L1) {
                readProgram(reader, item);
            } else {
                reader.skipCurrentElement();
            }
        }
    }
    return isAtStart && !reader.hasError() ? std::optional(item) : std::nullopt;
}

} // namespace windows_platform

QList<StartupItem> platform::listScheduledTasks(QString* error)
{
    using namespace windows_platform;
    constexpr std::chrono::seconds limit(5);
    static std::weak_ptr<int> reading; // One that hangs is not joined by a second.
    TaskListing listing{{}, u"任务计划程序没有回应"_s};
    if (reading.expired()) {
        auto token = std::make_shared<int>();
        reading = token;
        const std::function<TaskListing()> work = [token = std::move(token)]() mutable {
            TaskListing read = readAllTasks();
            token.reset();
            return read;
        };
        listing = callWithin(limit, work).value_or(listing);
    }
    if (error != nullptr && !listing.error.isEmpty())
        *error = u"无法读取计划任务: "_s + listing.error;
    return listing.items;
}

} // namespace korvane
