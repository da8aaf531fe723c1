// Tests of how tools read their arguments and round their figures.
#include "support/json.h"
#include "tools/tool_support.h"

#include <QTest>

#include <algorithm>

using namespace korvane;
using namespace Qt::StringLiterals;

class ToolSupportTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void arguments()
    {
        // The argument's JSON, with backticks for quotes; then it as an integer and as a text.
        const QString rows =
            u"null => 0[]|true => 1[]|-5 => -5[]|2.5 => 3[]|-2.6 => -3[]|[5] => 0[]|{`v`:5} => 0[]|"
            "1e300 => 0[]|-1e300 => 0[]|9007199254740993 => 9007199254740993[]|"
            "9223372036854775807 => 9223372036854775807[]|9223372036854775808 => 0[]|"
            "`-5` => -5[-5]|`0x10` => 0[0x10]|`` => 0[]|` \\t　a  b\\n` => 0[a  b]|"
            "`9223372036854775808` => 0[9223372036854775808]|"
            "`9223372036854775807` => 9223372036854775807[9223372036854775807]"_s;
        for (const QString& row : rows.split(u'|')) {
            const QString input = row.left(row.indexOf(u" => "_s));
            const QJsonObject args = test::json(u"{`v`:%1}"_s.arg(input));
            const QString integer = QString::number(integerArgument(args, "v"_L1));
            QCOMPARE(u"%1 => %2[%3]"_s.arg(input, integer, trimmedArgument(args, "v"_L1)), row);
        }
        QCOMPARE(integerArgument({{u"V"_s, 5}}, "v"_L1), 0);
        QCOMPARE(trimmedArgument({{u"V"_s, u"5"_s}}, "v"_L1), QString());
    }

    void rounding()
    {
        QList<double> values{0, 1.24, 1.26, 99.96, -0.26, 0.15, 1234567890123.46};
        std::transform(values.begin(), values.end(), values.begin(), roundedToOneDecimal);
        QCOMPARE(values, (QList<double>{0, 1.2, 1.3, 100, -0.3, 0.1, 1234567890123.5}));
    }
};

QTEST_GUILESS_MAIN(ToolSupportTest)
#include "tst_tool_support.moc"
