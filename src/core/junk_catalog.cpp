// The catalog of junk, as a table, and the search for what of it exists.
#include "core/junk_catalog.h"

#include "core/local_paths.h"

#include <QDir>
#include <QStandardPaths>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

/// A directory to which paths are relative; empty when there is none.
struct Base
{
    QString path;

    /// The path that goes on with `suffix`; empty without a base.
    QString operator()(const char* suffix) const
    {
        return path.isEmpty() ? QString() : path + QLatin1String(suffix);
    }
};

/// The base directories of one build of the catalog.
struct Roots
{
    Base localAppData{qEnvironmentVariable("LOCALAPPDATA")};
    Base appData{qEnvironmentVariable("APPDATA")};
    Base home{QStandardPaths::writableLocation(QStandardPaths::HomeLocation)};
    Base windowsDir{qEnvironmentVariable("SystemRoot", qEnvironmentVariable("windir"))};
    Base programData{qEnvironmentVariable("ProgramData")};
    QString temp = QStandardPaths::writableLocation(QStandardPaths::TempLocation);
};

/// What a browser keeps in a profile and loads again; not its cookies or history.
QStringList chromiumCaches(const Base& profile)
{
    return {profile("/Cache"), profile("/Code Cache"), profile("/GPUCache"),
            profile("/Service Worker/CacheStorage")};
}

QStringList firefoxCaches(const QString& profiles)
{
    QStringList caches;
    // An empty path would be the current directory.
    if (profiles.isEmpty() || !isLocalDirectory(profiles))
        return caches;
    const QStringList names =
        QDir(profiles).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& name : names)
        caches.append(profiles + u'/' + name + u"/cache2"_s);
    return caches;
}

/// Every category, with the roots that it may have.
// One entry a category, however many there are.
// NOLINTNEXTLINE(readability-function-size)
QList<JunkCategory> candidates()
{
    using enum JunkGroup;
    using enum JunkSafety;
    const auto [local, roaming, home, windows, programData, temp] = Roots();
    // clang-format off
    return {
        {u"user_temp"_s, u"用户临时文件"_s, u"当前用户 %TEMP% 下的临时文件, 程序运行残留, 可安全清理"_s,
         system, safe, {temp}, {}, {}},
        {u"windows_temp"_s, u"系统临时文件"_s, u"Windows\\Temp 系统级临时文件, 各程序/安装器的残留, 可安全清理"_s,
         system, safe, {windows("/Temp")}, {}, {}},
        {u"crash_dumps"_s, u"崩溃转储文件"_s, u"程序崩溃时生成的 .dmp 转储, 排障后即可删除"_s,
         system, safe, {local("/CrashDumps")}, {}, {}},
        {u"wer_reports"_s, u"Windows 错误报告"_s, u"WER 错误报告与归档, 上报后无保留价值"_s,
         system, safe, {local("/Microsoft/Windows/WER"), programData("/Microsoft/Windows/WER")}, {}, {}},
        {u"windows_logs"_s, u"系统日志文件"_s, u"Windows 各组件运行日志, 排障后可清理 (部分被占用的会跳过)"_s,
         system, safe, {windows("/Logs"), windows("/System32/LogFiles")}, {}, {}},
        {u"inetcache"_s, u"IE/系统网络缓存"_s, u"INetCache 系统级网络下载缓存"_s,
         system, safe, {local("/Microsoft/Windows/INetCache")}, {}, {}},
        {u"d3d_shader"_s, u"D3D 着色器缓存"_s, u"DirectX 着色器编译缓存, 删后游戏/图形程序会自动重建"_s,
         system, safe, {local("/D3DSCache")}, {}, {}},
        {u"nvidia_cache"_s, u"NVIDIA 着色器缓存"_s, u"NVIDIA 驱动的 DX/GL 着色器缓存, 删后自动重建"_s,
         system, safe, {local("/NVIDIA/DXCache"), local("/NVIDIA/GLCache"), programData("/NVIDIA Corporation/NV_Cache")}, {}, {}},
        {u"delivery_optimization"_s, u"更新分发缓存"_s, u"Windows 更新点对点分发(Delivery Optimization)缓存, 删后自动重建"_s,
         system, safe, {programData("/Microsoft/Windows/DeliveryOptimization/Cache")}, {}, {}},
        {u"thumbnail_cache"_s, u"缩略图/图标缓存"_s, u"资源管理器缩略图与图标缓存(thumbcache/iconcache), 可能被占用, 清理后自动重建"_s,
         system, caution, {local("/Microsoft/Windows/Explorer")}, {u"thumbcache_*.db"_s, u"iconcache_*.db"_s}, {}},
        {u"font_cache"_s, u"字体缓存"_s, u"字体渲染缓存, 可能被字体服务占用, 删后自动重建"_s,
         system, caution, {local("/FontCache")}, {}, {}},
        {u"windows_update"_s, u"Windows 更新缓存"_s, u"已下载的更新安装包缓存, 删后下次更新会重新下载, 不影响已装更新"_s,
         system, caution, {windows("/SoftwareDistribution/Download")}, {}, {}},
        {u"prefetch"_s, u"预读取文件 (Prefetch)"_s, u"系统加速启动的预读取数据, 删后短期内开程序略慢, 会自动重建"_s,
         system, caution, {windows("/Prefetch")}, {}, {}},
        {u"memory_dumps"_s, u"系统崩溃转储"_s, u"蓝屏/内核崩溃转储(Minidump/LiveKernelReports), 分析后可删"_s,
         system, caution, {windows("/Minidump"), windows("/LiveKernelReports")}, {}, {}},
        {u"chrome_cache"_s, u"Chrome 缓存"_s, u"Chrome 网页/代码/GPU 缓存(不含 Cookie 与历史), 清理前请关闭 Chrome"_s,
         browser, safe, chromiumCaches({local("/Google/Chrome/User Data/Default")}), {}, {u"chrome.exe"_s}},
        {u"edge_cache"_s, u"Edge 缓存"_s, u"Edge 网页/代码/GPU 缓存(不含 Cookie 与历史), 清理前请关闭 Edge"_s,
         browser, safe, chromiumCaches({local("/Microsoft/Edge/User Data/Default")}), {}, {u"msedge.exe"_s}},
        {u"firefox_cache"_s, u"Firefox 缓存"_s, u"Firefox 各 profile 的 cache2 网页缓存, 清理前请关闭 Firefox"_s,
         browser, safe, firefoxCaches(local("/Mozilla/Firefox/Profiles")), {}, {u"firefox.exe"_s}},
        {u"npm_cache"_s, u"npm 缓存"_s, u"Node.js npm 下载包缓存(= npm cache clean), 删后自动重下"_s,
         devtools, safe, {local("/npm-cache"), roaming("/npm-cache")}, {}, {}},
        {u"pip_cache"_s, u"pip 缓存"_s, u"Python pip 下载包缓存, 删后自动重下"_s,
         devtools, safe, {local("/pip/cache")}, {}, {}},
        {u"yarn_cache"_s, u"Yarn 缓存"_s, u"Yarn 包管理器缓存, 删后自动重下"_s,
         devtools, safe, {local("/Yarn/Cache")}, {}, {}},
        {u"gradle_cache"_s, u"Gradle 缓存"_s, u"Gradle 构建/依赖缓存(.gradle/caches), 删后构建时自动重下"_s,
         devtools, safe, {home("/.gradle/caches")}, {}, {}},
        {u"cargo_cache"_s, u"Cargo 缓存"_s, u"Rust Cargo 下载的 crate 缓存(registry/cache), 删后自动重下"_s,
         devtools, safe, {home("/.cargo/registry/cache")}, {}, {}},
        {u"uv_cache"_s, u"uv 缓存"_s, u"Python uv 包管理器缓存, 删后自动重下"_s,
         devtools, safe, {local("/uv/cache")}, {}, {}},
        {u"generic_cache"_s, u"通用 .cache 缓存"_s, u"用户主目录 .cache(各类工具的通用缓存), 删后按需重建"_s,
         devtools, safe, {home("/.cache")}, {}, {}},
        {u"vscode_cache"_s, u"VS Code 缓存"_s, u"VS Code 缓存与日志(Cache/CachedData/logs), 删后自动重建"_s,
         devtools, safe, {roaming("/Code/Cache"), roaming("/Code/CachedData"), roaming("/Code/logs")}, {}, {}},
        {u"jetbrains_cache"_s, u"JetBrains IDE 缓存"_s, u"JetBrains 全系 IDE 的索引/缓存/日志(仅 Local, 不含配置插件), 删后下次打开项目会重建索引(较慢), 请先关闭 IDE"_s,
         devtools, caution, {local("/JetBrains")}, {}, {}},
        {u"maven_repo"_s, u"Maven 本地仓库"_s, u"Maven 下载的依赖仓库(.m2/repository), 删后构建时全部重下(耗时)"_s,
         devtools, caution, {home("/.m2/repository")}, {}, {}},
        {u"nuget_cache"_s, u"NuGet 缓存"_s, u".NET NuGet 全局包缓存, 删后构建时重下"_s,
         devtools, caution, {home("/.nuget/packages")}, {}, {}},
        {u"conda_cache"_s, u"Conda 包缓存"_s, u"Anaconda/Miniconda 下载的包缓存(.conda/pkgs), 删后重下"_s,
         devtools, caution, {home("/.conda/pkgs")}, {}, {}},
        {u"go_cache"_s, u"Go 构建/模块缓存"_s, u"Go 编译缓存与模块下载缓存, 删后自动重建/重下"_s,
         devtools, caution, {local("/go-build"), home("/go/pkg/mod/cache/download")}, {}, {}},
    };
    // clang-format on
}

QStringList existing(const QStringList& paths)
{
    QStringList found;
    for (const QString& path : paths) {
        if (!path.isEmpty() && existsLocally(path))
            found.append(QDir::cleanPath(path));
    }
    return found;
}

} // namespace

QList<JunkCategory> knownJunkCategories()
{
    QList<JunkCategory> catalog = candidates();
    for (JunkCategory& category : catalog)
        category.roots = existing(category.roots);
    catalog.removeIf([](const JunkCategory& category) { return category.roots.isEmpty(); });
    return catalog;
}

} // namespace korvane
