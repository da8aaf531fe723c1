// Makes pictures of the desk's windows: desk_pictures DIRECTORY SUFFIX [dark]. See make.
#include "desk/desk_suite.h"
#include "desk/translation.h"
#include "desk/windows.h"
#include "desk/windows/main_window.h"
#include "desk/windows/question_dialog.h"

#include <QApplication>
#include <QStyle>

using namespace korvane;
using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

namespace {

const consent::Request freePort{
    u"kill_by_port"_s, u"结束占用端口 8080 的进程"_s, u"将结束 2 个进程, 以释放端口 8080。"_s,
    u"node (PID 20114)\n命令行: node /home/li/shop/server.js --port 8080 --watch "
    "--log /home/li/shop/log/server.log\nnode (PID 20131)\n命令行: node /home/li/shop/worker.js"_s,
    u"您让我重启商店的开发服务器, 但旧的服务器还占用着端口 8080。"_s};
const consent::Request junk{
    u"clean_junk"_s,
    u"清理垃圾文件"_s,
    u"将把 128 个文件移到回收站, 共 1.2 GB。"_s,
    QString(u"/home/li/.cache/thumbnails/normal/0a1b2c3d4e5f60718293a4b5c6d7e8f9.png\n"_s)
        .repeated(128),
    {}};
const consent::Request unknown{u"format_disk"_s, u"<b>允许</b>"_s, u"后果: 没有\u202e风险。"_s,
                               QString(3000, u'x'), u"请点\u200b允许。 <a href=\"x\">链接</a>"_s};

QPalette darkPalette()
{
    QPalette palette(QColor(45, 45, 45), QColor(35, 35, 35));
    palette.setColor(QPalette::Base, QColor(28, 28, 28));
    palette.setColor(QPalette::Highlight, QColor(42, 110, 187));
    QApplication::style()->polish(palette);
    return palette;
}

class Pictures : public test::DeskSuite
{
public:
    void make()
    {
        startDesk();
        desk::MainWindow window(*m_desk);
        window.show();
        save(window, u"empty"_s);
        desk::QuestionDialog dialog(*m_desk, m_clock.steady);
        test::setAsker(desk::ownServerPath());
        ask(freePort);
        save(dialog, u"dialog"_s);
        ask(junk);
        test::setAsker(u"/tmp/.x/korvane-mcp"_s);
        ask(unknown);
        m_desk->allow(m_desk->questions().first().id);
        save(dialog, u"queue"_s);
        m_desk->refuse(m_desk->questions().first().id);
        save(dialog, u"hostile"_s);
        save(window, u"window"_s);
    }

private:
    void save(QWidget& widget, const QString& name)
    {
        widget.activateWindow();
        static_cast<void>(QTest::qWaitForWindowActive(&widget));
        QTest::qWait(200); // Until all is shown.
        pass(1s);
        QTest::qWait(200); // Until Allow is active.
        const QStringList arguments = QCoreApplication::arguments();
        widget.grab().save(u"%1/%2%3.png"_s.arg(arguments.value(1), name, arguments.value(2)));
    }
};

} // namespace

int main(int argc, char* argv[])
{
    const auto application = desk::makeWindowApplication(argc, argv);
    desk::chooseLanguage(*application);
    if (application->arguments().contains(u"dark"_s))
        QApplication::setPalette(darkPalette());
    Pictures().make();
    return 0;
}
