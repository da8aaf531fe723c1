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

    /// Directories of the machine, by the names of the variables that are set.
    static void setEnvironment(const QHash<QByteArray, QString>& directories)
    {
        for (const char* name :
             {"LOCALAPPDATA", "APPDATA", "SystemRoot", "windir", "ProgramData", "HOME", "TMPDIR"}) {
            if (directories.contains(name))
                qputenv(name, directories[name].toUtf8());
            else
                qunsetenv(name);
        }
    }

    /// The catalog, a row an array, with roots from the machine's root on.
    QJsonArray catalog() const
    {
        QJsonArray rows;
        for (const JunkCategory& category : knownJunkCategories()) {
            QStringList roots = category.roots;
            roots.replaceInStrings(m_machine.path(), QString());
            rows.append(QJsonArray{category.id, category.name, category.description,
                                   int(category.group), int(category.safety),
                                   QJsonArray::fromStringList(roots),
                                   QJsonArray::fromStringList(category.patterns),
                                   QJsonArray::fromStringList(category.guardProcesses)});
        }
        return rows;
    }

    /// The rows without roots in `directory`, and without those that then have none.
    static QJsonArray without(const QString& directory, const QJsonArray& rows)
    {
        QJsonArray rest;
        for (const QJsonValue value : rows) {
            QJsonArray row = value.toArray();
            QJsonArray roots;
            for (const QJsonValue root : row[5].toArray()) {
                if (!root.toString().startsWith(directory))
                    roots.append(root);
            }
            row[5] = roots;
            if (!roots.isEmpty())
                rest.append(row);
        }
        return rest;
    }

private Q_SLOTS:
    void catalogs()
    {
        const auto at = [this](const char* directory) {
            return m_machine.path() + QString::fromUtf8(directory);
        };
        const QHash<QByteArray, QString> whole{{"LOCALAPPDATA", at("//local/./")},
                                               {"APPDATA", at("/x/../roaming")},
                                               {"SystemRoot", at("/windows")},
                                               {"ProgramData", at("/data/")},
                                               {"HOME", at("/home")},
                                               {"TMPDIR", at("/temp")}};
        setEnvironment(whole);
        QCOMPARE(catalog(), QJsonArray());

        // clang-format off
        test::makeTree(m_machine.path(),
            u"x/|temp/|windows/Temp/|local/CrashDumps/|local/Microsoft/Windows/WER/|data/Microsoft/Windows/WER/|windows/Logs/|windows/System32/LogFiles/|local/Microsoft/Windows/INetCache/|local/D3DSCache/|"
            "local/NVIDIA/DXCache/|local/NVIDIA/GLCache/|data/NVIDIA Corporation/NV_Cache/|data/Microsoft/Windows/DeliveryOptimization/Cache/|local/Microsoft/Windows/Explorer/|local/FontCache=1|windows/SoftwareDistribution/Download/|"
            "windows/Prefetch/|windows/Minidump/|windows/LiveKernelReports/|local/Google/Chrome/User Data/Default/Cache/|local/Google/Chrome/User Data/Default/Code Cache/|local/Google/Chrome/User Data/Default/GPUCache/|"
            "local/Google/Chrome/User Data/Default/Service Worker/CacheStorage/|local/Microsoft/Edge/User Data/Default/Cache/|local/Microsoft/Edge/User Data/Default/Code Cache/|local/Microsoft/Edge/User Data/Default/GPUCache/|"
            "local/Microsoft/Edge/User Data/Default/Service Worker/CacheStorage/|local/Mozilla/Firefox/Profiles/a/cache2/|local/Mozilla/Firefox/Profiles/b/|local/Mozilla/Firefox/Profiles/.c/cache2/|local/Mozilla/Firefox/Profiles/d=1|"
            "local/npm-cache/|roaming/npm-cache/|local/pip/cache/|local/Yarn/Cache/|home/.gradle/caches/|home/.cargo/registry/cache/|local/uv/cache/|home/.cache/|roaming/Code/Cache/|roaming/Code/CachedData/|roaming/Code/logs/|"
            "local/JetBrains/|home/.m2/repository/|home/.nuget/packages/|home/.conda/pkgs/|local/go-build/|home/go/pkg/mod/cache/download/"_s);
        // clang-format on
        const QJsonArray all = catalog();
        QCOMPARE(all.size(), 30);
        const QByteArray json = QJsonDocument(all).toJson(QJsonDocument::Compact);
        // Texts, order and roots are what users and clients go by: they change on purpose only.
        QCOMPARE(QCryptographicHash::hash(json, QCryptographicHash::Sha256).toHex(),
                 "07f3cf30b93a946761dbbc45070a31a575e8b4f2a368c0dbe04d57245b014bc2");

        const QHash<QByteArray, QString> places{{"LOCALAPPDATA", u"/local"_s},
                                                {"APPDATA", u"/roaming"_s},
                                                {"SystemRoot", u"/windows"_s},
                                                {"ProgramData", u"/data"_s}};
        for (auto place = places.begin(); place != places.end(); ++place) {
            auto variables = whole;
            variables.remove(place.key());
            setEnvironment(variables);
            QCOMPARE(catalog(), without(place.value(), all));
            variables.insert(place.key(), at("/absent"));
            variables.insert("windir", at("/windows"));
            setEnvironment(variables);
            QCOMPARE(catalog(), without(place.value(), all));
            if (place.key() != "SystemRoot")
                continue;
            variables.remove("SystemRoot");
            setEnvironment(variables);
            QCOMPARE(catalog(), all);
        }

        setEnvironment({{"HOME", at("/home")}, {"TMPDIR", at("/absent")}});
        QCOMPARE(catalog().size(), 7);
        test::makeTree(at("/home"), u".cargo/registry/cache/more/"_s);
        QCOMPARE(catalog().size(), 7);
        QVERIFY(QDir(at("/home/.cache")).removeRecursively());
        QCOMPARE(catalog().size(), 6);
    }
};

QTEST_GUILESS_MAIN(JunkCatalogTest)
#include "tst_junk_catalog.moc"
