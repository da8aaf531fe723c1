// Tests of the tool catalog as "tools/list" shows it, and of get_app_info.
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
    // Names, texts and schemas are what clients are steered by: the digest changes only together
    // with one of them, and on purpose.
    void publishedTextsAreThoseAgreedOn()
    {
        const QJsonObject response = m_client.request({{u"method"_s, u"tools/list"_s}});
        const QJsonArray listed = response["result"_L1]["tools"_L1].toArray();
        QJsonObject byName; // The list has an order of its own.
        for (const QJsonValue tool : listed)
            byName.insert(tool["name"_L1].toString(), tool);
        QCOMPARE(listed.size(), 21);
        const QByteArray json = QJsonDocument(byName).toJson(QJsonDocument::Compact);
        QCOMPARE(QCryptographicHash::hash(json, QCryptographicHash::Sha256).toHex(),
                 "d8c19357c4b56f6cb968909ef2d745bbb0e0755f926e0b8de6f93fe005cf77cd");
    }

    void appInfo()
    {
        QCoreApplication::setOrganizationName(u"Maker"_s);
        QCoreApplication::setApplicationName(u"Product"_s);
        QJsonObject info = m_client.call(u"get_app_info"_s, {{u"name"_s, u"x"_s}}).json();
        const QString dataDir = info.take("data_dir"_L1).toString();
        QVERIFY(dataDir.endsWith(u"/Maker/Product"_s));
        QCOMPARE(dataDir, QStandardPaths::writableLocation(QStandardPaths::AppDataLocation));
        QCOMPARE(info.take("platform"_L1).toString(), QSysInfo::prettyProductName());
        QCOMPARE(info.take("kernel_version"_L1).toString(), QSysInfo::kernelVersion());
        QCOMPARE(info.take("executable"_L1).toString(), QCoreApplication::applicationFilePath());
        QCOMPARE(test::text(info),
                 u"{`description`:`Korvane 系统医生 — 进程/启动项/网络/卸载/大文件 "
                 "五合一诊断工具`,`name`:`Korvane`,`organization`:`com.korvane`,"
                 "`qt_version`:`6.8.3`,`version`:`0.3.0`}"_s);
    }
};

QTEST_GUILESS_MAIN(CatalogTest)
#include "tst_catalog.moc"
