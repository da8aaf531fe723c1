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
#include <QSemaphore>
#include <QSessionManager>
#include <QThread>

#include <cstdio>
#include <cstdlib>
#include <utility>

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

/// Whose questions are refused when the display is lost.
Desk* servedDesk = nullptr;

/// The framework ends the program there and then; its windows are not to be touched any more.
void endWithDisplay()
{
    if (Desk* const desk = std::exchange(servedDesk, nullptr)) {
        desk->blockSignals(true);
        desk->refuseAll(Outcome::SessionEnd);
    }
}

QtMessageHandler usualHandler = nullptr;

/// Under Wayland not even exit handlers are called: this warning is the only sign, on whatever thread it
/// shows.
void hearOfLostDisplay(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    constexpr int patienceMs = 3000; // The desk's thread may be waiting for the display.
    static QSemaphore isRefused;
    usualHandler(type, context, text);
    Desk* const desk = servedDesk;
    if (desk == nullptr || !text.startsWith(u"The Wayland connection "))
        return;
    if (QThread::currentThread() == desk->thread())
        return endWithDisplay();
    QMetaObject::invokeMethod(desk, [] {
        endWithDisplay();
        isRefused.release();
    });
    isRefused.tryAcquire(1, patienceMs);
}

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
    usualHandler = qInstallMessageHandler(endWithoutDisplay);
    auto application = std::make_unique<QApplication>(argc, argv);
    qInstallMessageHandler(hearOfLostDisplay);
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
    QObject::connect(qApp, &QGuiApplication::commitDataRequest, &desk,
                     [&desk](QSessionManager& session) {
                         session.setRestartHint(QSessionManager::RestartNever);
                         desk.refuseAll(Outcome::SessionEnd);
                     });
    doorbell.listen();
    if (!isInBackground)
        window.bringUp();
    else if (!QSystemTrayIcon::isSystemTrayAvailable())
        window.showMinimized();
    servedDesk = &desk;
    static_cast<void>(std::atexit(endWithDisplay));
    const int exitCode = QCoreApplication::exec();
    servedDesk = nullptr;
    desk.quit();
    return exitCode;
}

} // namespace korvane::desk
