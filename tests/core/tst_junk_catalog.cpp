// Tests of the catalog of junk on a machine made for the test.
#include "core/junk_catalog.h"
#include "support/file_tree.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

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

    /// A row an array, roots from the machine's own root on.
    QByteArray json(const QList<JunkCategory>& catalog) const
    {
        QJsonArray rows;
        for (JunkCategory category : catalog) {
            const auto array = &QJsonArray::fromStringList;
            category.roots.replaceInStrings(m_machine.path(), QString());
            rows.append(QJsonArray{category.id, category.name, category.description,
                                   int(category.group), int(category.safety), array(category.roots),
                                   array(category.patterns), array(category.guardProcesses)});
        }
        return QJsonDocument(rows).toJson(QJsonDocument::Compact);
    }

    /// Without the roots in `directory`, and without the categories that then have none.
    QByteArray without(const char* directory, QList<JunkCategory> catalog) const
    {
        const QString prefix = m_machine.path() + QString::fromUtf8(directory);
        for (JunkCategory& category : catalog)
            category.roots.removeIf([&](const QString& root) { return root.startsWith(prefix); });
        catalog.removeIf([](const JunkCategory& category) { return category.roots.isEmpty(); });
        return json(catalog);
    }

private Q_SLOTS:
    void catalogs()
    {
        set("HOME", "/home");
        set("TMPDIR", "/temp");
        struct Place
        {
            const char* variable;
            const char* value;
            const char* directory;
        };
        const QList<Place> places{{"LOCALAPPDATA", "//local/./", "/local"},
                                  {"APPDATA", "/x/../roaming", "/roaming"},
                                  {"SystemRoot", "/windows", "/windows"},
                                  {"ProgramData", "/data/", "/data"}};
        for (const Place& place : places)
            set(place.variable, place.value);
        QCOMPARE(json(knownJunkCategories()), "[]");

        // clang-format off
        test::makeTree(m_machine.path(), u"x/|temp/|windows/Temp/|local/CrashDumps/|local/Microsoft/Windows/WER/|data/Microsoft/Windows/WER/|windows/Logs/|windows/System32/LogFiles/|local/Microsoft/Windows/INetCache/|local/D3DSCache/|"
            "local/NVIDIA/DXCache/|local/NVIDIA/GLCache/|data/NVIDIA Corporation/NV_Cache/|data/Microsoft/Windows/DeliveryOptimization/Cache/|local/Microsoft/Windows/Explorer/|local/FontCache=1|windows/SoftwareDistribution/Download/|"
            "windows/Prefetch/|windows/Minidump/|windows/LiveKernelReports/|local/Google/Chrome/User Data/Default/Cache/|local/Google/Chrome/User Data/Default/Code Cache/|local/Google/Chrome/User Data/Default/GPUCache/|"
            "local/Google/Chrome/User Data/Default/Service Worker/CacheStorage/|local/Microsoft/Edge/User Data/Default/Cache/|local/Microsoft/Edge/User Data/Default/Code Cache/|local/Microsoft/Edge/User Data/Default/GPUCache/|"
            "local/Microsoft/Edge/User Data/Default/Service Worker/CacheStorage/|local/Mozilla/Firefox/Profiles/a/cache2/|local/Mozilla/Firefox/Profiles/b/|local/Mozilla/Firefox/Profiles/.c/cache2/|local/Mozilla/Firefox/Profiles/d=1|"
            "local/npm-cache/|roaming/npm-cache/|local/pip/cache/|local/Yarn/Cache/|home/.gradle/caches/|home/.cargo/registry/cache/|local/uv/cache/|home/.cache/|roaming/Code/Cache/|roaming/Code/CachedData/|roaming/Code/logs/|"
            "local/JetBrains/|home/.m2/repository/|home/.nuget/packages/|home/.conda/pkgs/|local/go-build/|home/go/pkg/mod/cache/download/"_s);
        // clang-format on
        const QList<JunkCategory> all = knownJunkCategories();
        QCOMPARE(all.size(), 30);
        // Texts, order and roots are what users and clients go by: they change on purpose only.
        QCOMPARE(QCryptographicHash::hash(json(all), QCryptographicHash::Sha256).toHex(),
                 "07f3cf30b93a946761dbbc45070a31a575e8b4f2a368c0dbe04d57245b014bc2");

        for (const Place& place : places) {
            qunsetenv(place.variable);
            QCOMPARE(json(knownJunkCategories()), without(place.directory, all));
            set(place.variable, "/absent");
            set("windir", "/windows");
            QCOMPARE(json(knownJunkCategories()), without(place.directory, all));
            set(place.variable, place.value);
            qunsetenv("SystemRoot"); // "windir" stands in.
            QCOMPARE(json(knownJunkCategories()), json(all));
            set("SystemRoot", "/windows");
            qunsetenv("windir");
        }

        for (const Place& place : places)
            qunsetenv(place.variable);
        set("TMPDIR", "/absent");
        QCOMPARE(knownJunkCategories().size(), 7);
        QVERIFY(QDir(m_machine.filePath(u"home/.cache"_s)).removeRecursively());
        QCOMPARE(knownJunkCategories().size(), 6);
    }
};

QTEST_GUILESS_MAIN(JunkCatalogTest)
#include "tst_junk_catalog.moc"
