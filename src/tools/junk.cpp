// The tools that measure junk and, once the user has agreed, move it to the recycle bin.
#include "tools/handlers.h"

#include "base/byte_size.h"
#include "base/watchdog.h"
#include "core/junk_scanner.h"
#include "tools/tool_support.h"

#include <QJsonArray>
#include <QSet>

namespace korvane {

namespace {

QString groupLabel(JunkGroup group)
{
    switch (group) {
    case JunkGroup::system:
        return QStringLiteral("system");
    case JunkGroup::browser:
        return QStringLiteral("browser");
    case JunkGroup::devtools:
        break;
    }
    return QStringLiteral("devtools");
}

QString safetyLabel(JunkSafety safety)
{
    return safety == JunkSafety::safe ? QStringLiteral("safe") : QStringLiteral("caution");
}

/// How much several categories hold together.
struct Total
{
    qint64 files = 0;
    qint64 bytes = 0;

    void add(const JunkItem& item)
    {
        files += item.fileCount;
        bytes = sizeSum(bytes, item.sizeBytes);
    }
};

QJsonObject entryOf(const JunkItem& item)
{
    constexpr qsizetype samples = 5;
    return {
        {QStringLiteral("category_id"), item.id},
        {QStringLiteral("category_name"), item.name},
        {QStringLiteral("group"), groupLabel(item.group)},
        {QStringLiteral("description"), item.description},
        {QStringLiteral("safety"), safetyLabel(item.safety)},
        {QStringLiteral("size_bytes"), item.sizeBytes},
        {QStringLiteral("size_mb"), roundedMebibytes(item.sizeBytes)},
        {QStringLiteral("file_count"), item.fileCount},
        {QStringLiteral("sample_paths"), QJsonArray::fromStringList(item.paths.mid(0, samples))}};
}

/// The strings of the array without surrounding white space; what is no string is an empty one, as
/// no category is called.
QSet<QString> idsIn(const QJsonArray& values)
{
    QSet<QString> ids;
    for (const QJsonValue value : values)
        ids.insert(value.toString().trimmed());
    return ids;
}

/// What a call is going to move, and what it holds back.
struct Cleaning
{
    QStringList paths;
    Total total;
    QStringList lines; ///< Of the dialog, one a category.
    QJsonArray categories;
    QJsonArray skipped;

    void take(const JunkItem& item)
    {
        paths += item.paths;
        total.add(item);
        lines.append(QStringLiteral("  - %1 (%2, %3 项)")
                         .arg(item.name, item.sizeDisplay(), QString::number(item.fileCount)));
        categories.append(QJsonObject{{QStringLiteral("category_id"), item.id},
                                      {QStringLiteral("category_name"), item.name},
                                      {QStringLiteral("size_bytes"), item.sizeBytes},
                                      {QStringLiteral("file_count"), item.fileCount}});
    }

    void skip(const QString& id, const QStringList& running)
    {
        const QString reason =
            QStringLiteral("进程运行中, 请先关闭: %1").arg(running.join(QStringLiteral(", ")));
        skipped.append(
            QJsonObject{{QStringLiteral("category_id"), id}, {QStringLiteral("reason"), reason}});
    }
};

Cleaning planCleaning(const QSet<QString>& ids)
{
    const Watchdog::Work work;
    Cleaning cleaning;
    const auto mayBeCleaned = [&](const JunkCategory& category, int, int) {
        if (!ids.contains(category.id))
            return false;
        const QStringList running = JunkScanner::runningGuardProcesses(category.guardProcesses);
        if (!running.isEmpty())
            cleaning.skip(category.id, running);
        return running.isEmpty();
    };
    for (const JunkItem& item : JunkScanner::scanCatalog(mayBeCleaned))
        cleaning.take(item);
    return cleaning;
}

consent::Request cleaningRequest(const Cleaning& cleaning, const QString& reason)
{
    const auto& [files, bytes] = cleaning.total;
    return {.action = QStringLiteral("clean_junk"),
            .title = QStringLiteral("清理磁盘垃圾"),
            .summary = QStringLiteral("AI 请求清理 %1 类垃圾 (共 %2 个文件, 约 %3 MB) 到回收站")
                           .arg(QString::number(cleaning.lines.size()), QString::number(files),
                                QString::number(mebibytes(bytes), 'f', 1)),
            .detail = QStringLiteral("将移到回收站 (可从回收站恢复) 的分类:\n%1")
                          .arg(cleaning.lines.join(u'\n')),
            .reason = reason};
}

} // namespace

QJsonObject toolScanJunk(const QJsonObject& /*args*/, const ProgressCallback& progress)
{
    const Watchdog::Work work;
    const auto announce = [&progress](const JunkCategory& category, int index, int total) {
        if (progress) {
            progress({{QStringLiteral("scanning_category"), category.name},
                      {QStringLiteral("index"), index},
                      {QStringLiteral("total"), total}});
        }
        return true;
    };
    QJsonArray categories;
    Total total;
    for (const JunkItem& item : JunkScanner::scanCatalog(announce)) {
        categories.append(entryOf(item));
        total.add(item);
    }
    return {{QStringLiteral("category_count"), categories.size()},
            {QStringLiteral("total_size_bytes"), total.bytes},
            {QStringLiteral("total_size_mb"), roundedMebibytes(total.bytes)},
            {QStringLiteral("total_file_count"), total.files},
            {QStringLiteral("categories"), categories},
            {QStringLiteral("note"),
             QStringLiteral("清理用 clean_junk 传 category_ids[]; 那是写操作, 执行前会在 Korvane "
                            "主程序弹窗请求授权。safety=caution 的分类(更新缓存/"
                            "Prefetch)建议先向用户说明副作用再清。")}};
}

QJsonObject toolCleanJunk(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QJsonArray ids = args.value(QLatin1String("category_ids")).toArray();
    if (ids.isEmpty())
        throwToolError(
            QStringLiteral("参数 category_ids 不能为空 — 先用 scan_junk 拿 category_id"));

    const Cleaning cleaning = planCleaning(idsIn(ids));
    if (cleaning.paths.isEmpty()) {
        const QString note =
            cleaning.skipped.isEmpty()
                ? QStringLiteral("匹配的分类当前无可清理内容 (可能已清理过, 或 category_id 无效 — "
                                 "用 scan_junk 确认有效 id)")
                : QStringLiteral("所有匹配分类都因进程运行中被跳过, 请先关闭对应程序再试");
        return {{QStringLiteral("cleaned"), false},
                {QStringLiteral("skipped"), cleaning.skipped},
                {QStringLiteral("note"), note}};
    }

    requireConsent(cleaningRequest(cleaning, textArgument(args, QLatin1String("reason"))));
    const OpResult result = JunkScanner::moveToRecycleBin(cleaning.paths);
    if (!result.ok)
        throwToolError(result.message);
    return {{QStringLiteral("cleaned"), true},
            {QStringLiteral("freed_bytes"), cleaning.total.bytes},
            {QStringLiteral("freed_mb"), roundedMebibytes(cleaning.total.bytes)},
            {QStringLiteral("file_count"), cleaning.total.files},
            {QStringLiteral("categories"), cleaning.categories},
            {QStringLiteral("skipped"), cleaning.skipped},
            {QStringLiteral("message"), result.message}};
}

} // namespace korvane
