// The tools that measure junk and, once the user has agreed, move it to the recycle bin.
#include "tools/handlers.h"

#include "base/byte_size.h"
#include "base/watchdog.h"
#include "core/junk_scanner.h"
#include "tools/tool_support.h"

#include <QJsonArray>
#include <QSet>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

QString groupLabel(JunkGroup group)
{
    switch (group) {
    case JunkGroup::system:
        return u"system"_s;
    case JunkGroup::browser:
        return u"browser"_s;
    case JunkGroup::devtools:
        break;
    }
    return u"devtools"_s;
}

QString safetyLabel(JunkSafety safety)
{
    return safety == JunkSafety::safe ? u"safe"_s : u"caution"_s;
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
    return {{u"category_id"_s, item.id},
            {u"category_name"_s, item.name},
            {u"group"_s, groupLabel(item.group)},
            {u"description"_s, item.description},
            {u"safety"_s, safetyLabel(item.safety)},
            {u"size_bytes"_s, item.sizeBytes},
            {u"size_mb"_s, roundedMebibytes(item.sizeBytes)},
            {u"file_count"_s, item.fileCount},
            {u"sample_paths"_s, QJsonArray::fromStringList(item.paths.mid(0, samples))}};
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
        lines.append(u"  - %1 (%2, %3 项)"_s.arg(item.name, item.sizeDisplay(),
                                                 QString::number(item.fileCount)));
        categories.append(QJsonObject{{u"category_id"_s, item.id},
                                      {u"category_name"_s, item.name},
                                      {u"size_bytes"_s, item.sizeBytes},
                                      {u"file_count"_s, item.fileCount}});
    }

    void skip(const QString& id, const QStringList& running)
    {
        const QString reason = u"进程运行中, 请先关闭: %1"_s.arg(running.join(u", "_s));
        skipped.append(QJsonObject{{u"category_id"_s, id}, {u"reason"_s, reason}});
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
    return {.action = u"clean_junk"_s,
            .title = u"清理磁盘垃圾"_s,
            .summary = u"AI 请求清理 %1 类垃圾 (共 %2 个文件, 约 %3 MB) 到回收站"_s.arg(
                QString::number(cleaning.lines.size()), QString::number(files),
                QString::number(mebibytes(bytes), 'f', 1)),
            .detail =
                u"将移到回收站 (可从回收站恢复) 的分类:\n%1"_s.arg(cleaning.lines.join(u'\n')),
            .reason = reason};
}

} // namespace

QJsonObject toolScanJunk(const QJsonObject& /*args*/, const ProgressCallback& progress)
{
    const Watchdog::Work work;
    const auto announce = [&progress](const JunkCategory& category, int index, int total) {
        if (progress) {
            progress({{u"scanning_category"_s, category.name},
                      {u"index"_s, index},
                      {u"total"_s, total}});
        }
        return true;
    };
    QJsonArray categories;
    Total total;
    for (const JunkItem& item : JunkScanner::scanCatalog(announce)) {
        categories.append(entryOf(item));
        total.add(item);
    }
    return {{u"category_count"_s, categories.size()},
            {u"total_size_bytes"_s, total.bytes},
            {u"total_size_mb"_s, roundedMebibytes(total.bytes)},
            {u"total_file_count"_s, total.files},
            {u"categories"_s, categories},
            {u"note"_s, u"清理用 clean_junk 传 category_ids[]; 那是写操作, 执行前会在 Korvane "
                        "主程序弹窗请求授权。safety=caution 的分类(更新缓存/"
                        "Prefetch)建议先向用户说明副作用再清。"_s}};
}

QJsonObject toolCleanJunk(const QJsonObject& args, const ProgressCallback& /*progress*/)
{
    const QJsonArray ids = args.value("category_ids"_L1).toArray();
    if (ids.isEmpty())
        throwToolError(u"参数 category_ids 不能为空 — 先用 scan_junk 拿 category_id"_s);

    const Cleaning cleaning = planCleaning(idsIn(ids));
    if (cleaning.paths.isEmpty()) {
        const QString note =
            cleaning.skipped.isEmpty()
                ? u"匹配的分类当前无可清理内容 (可能已清理过, 或 category_id 无效 — "
                  "用 scan_junk 确认有效 id)"_s
                : u"所有匹配分类都因进程运行中被跳过, 请先关闭对应程序再试"_s;
        return {{u"cleaned"_s, false}, {u"skipped"_s, cleaning.skipped}, {u"note"_s, note}};
    }

    requireConsent(cleaningRequest(cleaning, textArgument(args, "reason"_L1)));
    const OpResult result = JunkScanner::moveToRecycleBin(cleaning.paths);
    if (!result.ok)
        throwToolError(result.message);
    return {{u"cleaned"_s, true},
            {u"freed_bytes"_s, cleaning.total.bytes},
            {u"freed_mb"_s, roundedMebibytes(cleaning.total.bytes)},
            {u"file_count"_s, cleaning.total.files},
            {u"categories"_s, cleaning.categories},
            {u"skipped"_s, cleaning.skipped},
            {u"message"_s, result.message}};
}

} // namespace korvane
