// The desk's application object, and its windows together.
#include "desk/windows.h"

#include "desk/desk.h"
#include "desk/doorbell.h"
#include "desk/windows/main_window.h"
#include "desk/windows/question_dialog.h"
#include "desk/windows/readable_style.h"
#include "desk/windows/tray.h"

#include <QApplication>
#include <QEvent>
#include <QIcon>

#include <cstdio>
#include <cstdlib>

namespace korvane::desk {

using namespace Qt::StringLiterals;

namespace {

/// Else the framework, on its way out, closes the windows first: a question would be refused as if by
/// the person, and a window that only minimises would keep the desk from ending.
class QuitFilter : public QObject
{
public:
    bool eventFilter(QObject* /*watched*/, QEvent* event) override
    {
        if (event->type() != QEvent::Quit)
            return false;
        QCoreApplication::exit();
        return true;
    }
};

/// The framework knows no other way to say that there is no display than to abort.
void endWithoutDisplay(QtMsgType type, const QMessageLogContext& /*context*/,
                       const QString& /*text*/)
{
    if (type != QtFatalMsg)
        return;
    static_cast<void>(std::fputs("korvane-desk: 无法打开窗口 (没有可用的图形界面); "
                                 "在终端中可用 korvane-desk --terminal\n",
                                 stderr));
    std::_Exit(EXIT_FAILURE);
}

} // namespace

std::unique_ptr<QCoreApplication> makeWindowApplication(int& argc, char** argv)
{
    const QtMessageHandler usualHandler = qInstallMessageHandler(endWithoutDisplay);
    auto application = std::make_unique<QApplication>(argc, argv);
    qInstallMessageHandler(usualHandler);
    QApplication::setStyle(new ReadableStyle);
    QGuiApplication::setDesktopFileName(u"korvane-desk"_s);
    QGuiApplication::setWindowIcon(QIcon(u":/korvane-desk.png"_s));
    QApplication::setQuitOnLastWindowClosed(false);
    return application;
}

int runWindows(Desk& desk, bool isInBackground)
{
    QuitFilter quitFilter;
    qApp->installEventFilter(&quitFilter);
    MainWindow window(desk);
    QuestionDialog dialog(desk);
    const Tray tray(desk);
    Doorbell doorbell;
    QObject::connect(&doorbell, &Doorbell::rung, &window, &MainWindow::bringUp);
    QObject::connect(&tray, &Tray::windowWanted, &window, &MainWindow::bringUp);
    QObject::connect(&tray, &Tray::questionWanted, &dialog, &QuestionDialog::bringUp);
    QObject::connect(&tray, &Tray::quitWanted, qApp, [] { QCoreApplication::exit(); });
    QObject::connect(&window, &MainWindow::quitWanted, qApp, [] { QCoreApplication::exit(); });
    doorbell.listen();
    if (!isInBackground)
        window.bringUp();
    else if (!QSystemTrayIcon::isSystemTrayAvailable())
        window.showMinimized();
    const int exitCode = QCoreApplication::exec();
    desk.quit();
    return exitCode;
}

} // namespace korvane::desk
