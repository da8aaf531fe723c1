// Tests that every text of the desk's windows can be read, whatever colours the system chose.
#include "desk/windows.h"
#include "desk/windows/readable_style.h"

#include <QApplication>
#include <QStyle>
#include <QTest>

using namespace korvane::desk;

class ContrastTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void texts_data()
    {
        QTest::addColumn<QPalette>("palette");
        QTest::newRow("the framework's own") << QApplication::style()->standardPalette();
        QTest::newRow("light") << QPalette(QColor(239, 239, 239), QColor(239, 239, 239));
        QTest::newRow("dark") << QPalette(QColor(45, 45, 45), QColor(35, 35, 35));
        QPalette pale;
        pale.setColor(QPalette::HighlightedText, Qt::black);
        pale.setColor(QPalette::Highlight, QColor(90, 90, 90));
        QTest::newRow("a dark text on a dark choice") << pale;
    }
    void texts()
    {
        QFETCH(QPalette, palette);
        QApplication::style()->polish(palette);
        using Role = QPalette::ColorRole;
        const QList<std::pair<Role, Role>> texts{
            {QPalette::WindowText, QPalette::Window},
            {QPalette::Text, QPalette::Base},
            {QPalette::ButtonText, QPalette::Button},
            {QPalette::ToolTipText, QPalette::ToolTipBase},
            {QPalette::PlaceholderText, QPalette::Base},
            {QPalette::HighlightedText, QPalette::Highlight},
        };
        for (const auto group : {QPalette::Active, QPalette::Inactive}) {
            for (const auto& [text, around] : texts) {
                const QColor color = palette.color(group, text);
                QCOMPARE(color.alpha(), 255);
                const double contrast = contrastOf(color, palette.color(group, around));
                QVERIFY2(contrast >= ReadableStyle::leastContrast,
                         qPrintable(QString::number(contrast)));
            }
        }
    }
    void ofBlackOnWhite() { QCOMPARE(contrastOf(Qt::black, Qt::white), 21.0); }
};

int main(int argc, char* argv[])
{
    const auto application = makeWindowApplication(argc, argv);
    ContrastTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_contrast.moc"
