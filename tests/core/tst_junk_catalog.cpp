// Tests of the catalog of junk on a machine made for the test.
#include "core/junk_catalog.h"
#include "support/file_tree.h"
#include "support/json.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTest>

#include <array>

using namespace korvane;
using namespace Qt::StringLiterals;

class JunkCatalogTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_machine;

    void set(const char* variable, const char* directory) const
    {
        qputenv(variable, (m_machine.path() + QString::fromUtf8(directory)).toUtf8());
    }

    /// A row an array, roots from the machine's own root on; without those in `directory`, and the
    /// categories that then have none.
    QByteArray json(const QList<JunkCategory>& catalog, const QString& directory = u"//"_s) const
    {
        QJsonArray rows;
        for (const JunkCategory& c : catalog) {
            const auto array = &QJsonArray::fromStringList;
            QStringList roots = c.roots;
            roots.replaceInStrings(m_machine.path(), QString());
            roots.removeIf([&](const QString& root) { return root.startsWith(directory); });
            if (!roots.isEmpty()) {
                rows.append(QJsonArray{c.id, c.name, c.description, int(c.group), int(c.safety),
                                       array(roots), array(c.patterns), array(c.guardProcesses)});
            }
        }
        return QJsonDocument(rows).toJson(QJsonDocument::Compact);
    }

private Q_SLOTS:
    void catalogs()
    {
        set("HOME", "/home");
        set("TMPDIR", "/temp");
        const QList<std::array<const char*, 3>> places{{"LOCALAPPDATA", "//local/./", "/local"},
                                                       {"APPDATA", "/x/../roaming", "/roaming"},
                                                       {"SystemRoot", "/windows", "/windows"},
                                                       {"ProgramData", "/data/", "/data"}};
        for (const auto& [variable, value, directory] : places)
            set(variable, value);
        QCOMPARE(json(knownJunkCategories()), "[]");

        // No root are a file, a profile without a cache and a hidden one.
        for (const QString& row : test::rows(R"(
            : x/|temp/
            windows: Temp/|Logs/|System32/LogFiles/|SoftwareDistribution/Download/|Prefetch/
            windows: Minidump/|LiveKernelReports/
            data: Microsoft/Windows/WER/|Microsoft/Windows/DeliveryOptimization/Cache/
            data: NVIDIA Corporation/NV_Cache/
            roaming: npm-cache/|Code/Cache/|Code/CachedData/|Code/logs/
            home: .gradle/caches/|.cargo/registry/cache/|.cache/|.m2/repository/
            home: .nuget/packages/|.conda/pkgs/|go/pkg/mod/cache/download/
            local: CrashDumps/|D3DSCache/|NVIDIA/DXCache/|NVIDIA/GLCache/|FontCache=1|npm-cache/
            local: pip/cache/|Yarn/Cache/|uv/cache/|JetBrains/|go-build/
            local/Microsoft/Windows: WER/|INetCache/|Explorer/
            local/Google/Chrome/User Data/Default: Cache/|Code Cache/|GPUCache/
            local/Google/Chrome/User Data/Default: Service Worker/CacheStorage/
            local/Microsoft/Edge/User Data/Default: Cache/|Code Cache/|GPUCache/
            local/Microsoft/Edge/User Data/Default: Service Worker/CacheStorage/
            local/Mozilla/Firefox/Profiles: a/cache2/|b/|.c/cache2/|d=1)"))
            test::makeTree(m_machine.filePath(row.section(u": "_s, 0, 0)), row.section(u": "_s, 1));
        const QList<JunkCategory> all = knownJunkCategories();
        QCOMPARE(all.size(), 30);
        // Texts, order and roots are what users and clients go by: they change on purpose only.
        QCOMPARE(QCryptographicHash::hash(json(all), QCryptographicHash::Sha256).toHex(),
                 "07f3cf30b93a946761dbbc45070a31a575e8b4f2a368c0dbe04d57245b014bc2");

        for (const auto& [variable, value, directory] : places) {
            qunsetenv(variable);
            QCOMPARE(json(knownJunkCategories()), json(all, QString::fromUtf8(directory)));
            set(variable, "/absent");
            set("windir", "/windows");
            QCOMPARE(json(knownJunkCategories()), json(all, QString::fromUtf8(directory)));
            set(variable, value);
            qunsetenv("SystemRoot"); // "windir" stands in.
            QCOMPARE(json(knownJunkCategories()), json(all));
            set("SystemRoot", "/windows");
            qunsetenv("windir");
        }
        for (const auto& [variable, value, directory] : places)
            qunsetenv(variable);
        set("TMPDIR", "/absent");
        QCOMPARE(knownJunkCategories().size(), 7);
    }
};

QTEST_GUILESS_MAIN(JunkCatalogTest)
#include "tst_junk_catalog.moc"
