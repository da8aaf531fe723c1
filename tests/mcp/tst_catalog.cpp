// Tests of the tool catalog, of what "tools/list" makes of it, and of get_app_info.
#include "support/mcp_client.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTest>

using namespace korvane;
using namespace Qt::StringLiterals;

class CatalogTest : public QObject
{
    Q_OBJECT

    test::Client m_client;

private Q_SLOTS:
    // Names, order, texts and schemas are what clients are steered by: the digest changes only
    // together with one of them, and on purpose.
    void publishedTextsAreThoseAgreedOn()
    {
        QJsonArray tools;
        for (const ToolDefinition& tool : toolCatalog())
            tools.append(QJsonArray{tool.name, tool.description, tool.inputSchema});
        const QByteArray json = QJsonDocument(tools).toJson(QJsonDocument::Compact);
        QCOMPARE(QCryptographicHash::hash(json, QCryptographicHash::Sha256).toHex(),
                 "811d2853ff87a9af3129ab141df9b0880411f3c39e69aee96eaa9cee8d44f130");
    }

    void listShowsEveryTool()
    {
        const QJsonObject response = m_client.request({{u"method"_s, u"tools/list"_s}});
        const QJsonArray listed = response["result"_L1]["tools"_L1].toArray();
        QString texts;
        for (const ToolDefinition& tool : toolCatalog()) {
            const QJsonObject entry{{u"name"_s, tool.name},
                                    {u"description"_s, tool.description},
                                    {u"inputSchema"_s, tool.inputSchema}};
            const QByteArray sent = QJsonDocument(entry).toJson();
            QCOMPARE(QJsonDocument::fromJson(sent).object(), entry);
            QVERIFY2(listed.contains(entry), qUtf8Printable(tool.name));
            texts += QString::fromUtf8(sent);
        }
        QCOMPARE(listed.size(), 21);
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
