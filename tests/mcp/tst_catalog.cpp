// Tests of the tool catalog, of what "tools/list" makes of it, and of get_app_info.
#include "support/mcp_client.h"

#include <QCoreApplication>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class CatalogTest : public QObject
{
    Q_OBJECT

    test::Client m_client;

    static QString compact(const QJsonObject& json)
    {
        return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact)).remove(u'"');
    }

    /// What a schema says of its arguments apart from their descriptions.
    static QString outline(QJsonObject schema)
    {
        QJsonObject properties = schema.value("properties"_L1).toObject();
        for (QJsonValueRef property : properties) {
            QJsonObject shape = property.toObject();
            const bool described = !shape.take("description"_L1).toString().isEmpty();
            property = described ? QJsonValue(shape) : QJsonValue();
        }
        schema.insert("properties"_L1, properties);
        return compact(schema);
    }

private Q_SLOTS:
    void toolsStandInOrderWithTheirArguments()
    {
        // clang-format off
        const QStringList expected{
            u"list_processes {properties:{},type:object}"_s,
            u"list_startup_items {properties:{},type:object}"_s,
            u"list_network_connections {properties:{},type:object}"_s,
            u"find_process_by_port {properties:{port:{type:integer}},required:[port],type:object}"_s,
            u"list_uninstall_entries {properties:{},type:object}"_s,
            u"list_services {properties:{},type:object}"_s,
            u"find_large_files {properties:{max_results:{default:50,type:integer},min_size_bytes:{default:52428800,type:integer},root_path:{type:string}},type:object}"_s,
            u"scan_junk {properties:{},type:object}"_s,
            u"verify_signatures {properties:{include_signer:{type:boolean},only_suspicious:{type:boolean},paths:{items:{type:string},type:array}},type:object}"_s,
            u"get_app_info {properties:{},type:object}"_s,
            u"get_system_metrics {properties:{},type:object}"_s,
            u"get_process_command_line {properties:{pid:{type:integer}},required:[pid],type:object}"_s,
            u"get_process_tree {properties:{},type:object}"_s,
            u"kill_process {properties:{pid:{type:integer},reason:{type:string}},required:[pid],type:object}"_s,
            u"kill_by_port {properties:{port:{type:integer},reason:{type:string}},required:[port],type:object}"_s,
            u"set_startup_item_enabled {properties:{enabled:{type:boolean},name:{type:string},reason:{type:string},source:{enum:[hklm,hkcu],type:string}},required:[source,name,enabled],type:object}"_s,
            u"unlock_file {properties:{path:{type:string},reason:{type:string}},required:[path],type:object}"_s,
            u"clean_junk {properties:{category_ids:{items:{type:string},type:array},reason:{type:string}},required:[category_ids],type:object}"_s,
            u"start_service {properties:{name:{type:string},reason:{type:string}},required:[name],type:object}"_s,
            u"stop_service {properties:{name:{type:string},reason:{type:string}},required:[name],type:object}"_s,
            u"set_service_start_type {properties:{name:{type:string},reason:{type:string},start_type:{enum:[auto,auto_delayed,manual,disabled],type:string}},required:[name,start_type],type:object}"_s,
        };
        // clang-format on
        QStringList actual;
        for (const ToolDefinition& tool : toolCatalog())
            actual.append(tool.name + u' ' + outline(tool.inputSchema));
        QCOMPARE(actual, expected);
    }

    void listShowsToolsWithHandlers()
    {
        const QJsonObject response = m_client.request({{u"method"_s, u"tools/list"_s}});
        const QJsonArray listed = response["result"_L1]["tools"_L1].toArray();
        QString texts;
        int handlers = 0;
        for (const ToolDefinition& tool : toolCatalog()) {
            const QJsonObject entry{{u"name"_s, tool.name},
                                    {u"description"_s, tool.description},
                                    {u"inputSchema"_s, tool.inputSchema}};
            const QByteArray sent = QJsonDocument(entry).toJson();
            QCOMPARE(QJsonDocument::fromJson(sent).object(), entry);
            QVERIFY(tool.description.size() > 20);
            QCOMPARE(listed.contains(entry), bool(tool.handler));
            handlers += tool.handler ? 1 : 0;
            texts += QString::fromUtf8(sent);
        }
        QCOMPARE(listed.size(), handlers);
        for (const QString& awkward : {u"⚠ 写操作 — "_s, u"「端口被占, dev server 起不来」"_s,
                                       u"StartupApproved\\\\Run "_s, u"[\\\"user_temp\\\","_s})
            QVERIFY2(texts.contains(awkward), awkward.toUtf8());
    }

    void appInfo()
    {
        QCoreApplication::setOrganizationName(u"Maker"_s);
        QCoreApplication::setApplicationName(u"Product"_s);
        QJsonObject info = m_client.call(u"get_app_info"_s).json();
        QCOMPARE(m_client.call(u"get_app_info"_s, {{u"name"_s, u"x"_s}}).json(), info);
        const QString dataDir = info.take("data_dir"_L1).toString();
        QVERIFY(dataDir.endsWith(u"/Maker/Product"_s));
        QCOMPARE(dataDir, QStandardPaths::writableLocation(QStandardPaths::AppDataLocation));
        // clang-format off
        const QJsonObject rest{
            {u"name"_s, u"Korvane"_s}, {u"version"_s, u"0.3.0"_s}, {u"organization"_s, u"com.korvane"_s}, {u"qt_version"_s, u"6.8.3"_s},
            {u"platform"_s, QSysInfo::prettyProductName()}, {u"kernel_version"_s, QSysInfo::kernelVersion()},
            {u"executable"_s, QCoreApplication::applicationFilePath()},
            {u"description"_s, u"Korvane 系统医生 — 进程/启动项/网络/卸载/大文件 五合一诊断工具"_s}};
        // clang-format on
        QCOMPARE(info, rest);
    }
};

QTEST_GUILESS_MAIN(CatalogTest)
#include "tst_catalog.moc"
