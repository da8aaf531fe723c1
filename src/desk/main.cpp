// The desk's entry: in windows, at a terminal, or only to print the history.
#include "base/identity.h"
#include "desk/desk.h"
#include "desk/doorbell.h"
#include "desk/terminal.h"
#include "desk/translation.h"
#include "desk/windows.h"
#include "platform/process_setup.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>

#include <algorithm>
#include <array>
#include <string_view>

using namespace Qt::StringLiterals;

namespace {

using namespace korvane;
using desk::Desk;

constexpr qsizetype usualEntries = 20;

void setIdentity()
{
    QCoreApplication::setApplicationName(u"korvane-desk"_s);
    QCoreApplication::setApplicationVersion(identity::version);
    QCoreApplication::setOrganizationDomain(identity::organizationDomain);
    QCoreApplication::setOrganizationName(identity::applicationName);
}

QString translated(const char* text)
{
    return QCoreApplication::translate("desk", text);
}

/// Asked before there is an application object, whose kind depends on it.
bool needsWindows(int argc, char** argv)
{
    constexpr std::array<std::string_view, 6> others{"--terminal", "--history", "--help",
                                                     "-h",         "--version", "-v"};
    return std::none_of(argv + 1, argv + argc, [&others](const char* argument) {
        return std::find(others.begin(), others.end(), argument) != others.end();
    });
}

int fail(const QString& problem)
{
    qCritical("korvane-desk: %s", qUtf8Printable(problem));
    return 1;
}

int print(const QString& text, StandardStreams& streams)
{
    const QByteArray bytes = text.toUtf8();
    return streams.write({bytes.constData(), static_cast<std::size_t>(bytes.size())}) ? 0 : 1;
}

int printHistory(const QStringList& arguments, StandardStreams& streams)
{
    bool isNumber = true;
    const qsizetype count = arguments.isEmpty() ? usualEntries : arguments.first().toInt(&isNumber);
    if (!isNumber || count < 1)
        return fail(translated(QT_TRANSLATE_NOOP("desk", "--history 之后应为正整数。")));
    desk::History history(desk::History::defaultDirectory());
    constexpr int usualColumns = 80;
    const auto terminal = platform::openTerminal();
    const int columns = terminal ? terminal->columns() : usualColumns;
    return print(historyText(history.entries(), count, columns), streams);
}

int runAtTerminal(Desk& desk)
{
    const auto terminal = platform::openTerminal();
    if (!terminal)
        return fail(translated(QT_TRANSLATE_NOOP("desk", "--terminal 需要在终端中运行。")));
    if (!desk.start())
        return fail(desk.problem());
    const desk::TerminalDesk view(desk, *terminal);
    QObject::connect(&view, &desk::TerminalDesk::ended, qApp, &QCoreApplication::quit);
    const int exitCode = QCoreApplication::exec();
    desk.quit();
    return exitCode;
}

int runInWindows(Desk& desk, bool isInBackground)
{
    if (!desk.start() && desk.otherDesk() != 0)
        return desk::Doorbell::ring() ? 0 : fail(desk.problem());
    return runWindows(desk, isInBackground);
}

} // namespace

int main(int argc, char* argv[])
{
    const auto streams = platform::prepareProcess();
    setIdentity();
    const auto application = needsWindows(argc, argv)
                                 ? desk::makeWindowApplication(argc, argv)
                                 : std::make_unique<QCoreApplication>(argc, argv);
    desk::chooseLanguage(*application);
    Desk desk;
    QCommandLineParser parser;
    parser.setApplicationDescription(
        translated(QT_TRANSLATE_NOOP("desk", "显示 AI 想对本机做的更改, 由您允许或拒绝。\n"
                                             "授权通道: %1\n"
                                             "授权记录: %2"))
            .arg(desk.channelText(), QDir::toNativeSeparators(desk::History::defaultDirectory())));
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    const QString terminal = u"terminal"_s;
    const QString history = u"history"_s;
    const QString background = u"background"_s;
    parser.addOptions(
        {{terminal, translated(QT_TRANSLATE_NOOP("desk", "在终端中询问, 不用窗口。"))},
         {background, translated(QT_TRANSLATE_NOOP("desk", "启动时不显示主窗口。"))},
         {history, translated(QT_TRANSLATE_NOOP("desk", "显示最近的授权记录, 默认 20 条。"))}});
    parser.addPositionalArgument(u"N"_s, translated(QT_TRANSLATE_NOOP("desk", "记录的条数。")),
                                 u"[N]"_s);
    // Not by process(), which shows a box on Windows though somebody reads the standard streams.
    if (!parser.parse(QCoreApplication::arguments()))
        return fail(parser.errorText());
    if (parser.isSet(version))
        return print(u"korvane-desk %1\n"_s.arg(identity::version), *streams);
    if (parser.isSet(help))
        return print(parser.helpText(), *streams);
    if (parser.isSet(history))
        return printHistory(parser.positionalArguments(), *streams);
    const auto quitWatch = platform::watchForQuit(&QCoreApplication::quit);
    return parser.isSet(terminal) ? runAtTerminal(desk)
                                  : runInWindows(desk, parser.isSet(background));
}
