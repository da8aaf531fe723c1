// State, history, details, and what a person can set.
#include "desk/windows/main_window.h"

#include "desk/windows/history_model.h"
#include "desk/windows/pause_menu.h"
#include "desk/windows/plain_text_view.h"
#include "platform/local_channel.h"
#include "platform/session.h"

#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QCloseEvent>
#include <QDir>
#include <QHeaderView>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QShortcut>
#include <QSplitter>
#include <QStackedWidget>
#include <QSystemTrayIcon>
#include <QTableView>
#include <QVBoxLayout>

namespace korvane::desk {

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr std::chrono::milliseconds historyDelay = 100ms;
constexpr QSize usualSize{900, 560};
constexpr int mostDetailLines = 12;
constexpr int rowsForWidths = 50;

/// What clients need to start the server so that it finds the desk: of their own environment they hand on
/// little.
QString clientSettings()
{
    QJsonObject server{{u"command"_s, QDir::toNativeSeparators(ownServerPath())}};
    const QString directory = qEnvironmentVariable("TMPDIR");
    if (platform::areLocalSocketsFiles() && !directory.isEmpty())
        server.insert(u"env"_s, QJsonObject{{u"TMPDIR"_s, directory}});
    const QJsonObject settings{{u"mcpServers"_s, QJsonObject{{u"korvane"_s, server}}}};
    return QString::fromUtf8(QJsonDocument(settings).toJson(QJsonDocument::Compact));
}

QCheckBox* makeAutostartBox()
{
    auto* const box = new QCheckBox(MainWindow::tr("随会话启动"));
    box->setChecked(platform::startsWithSession());
    QObject::connect(box, &QCheckBox::clicked, box, [box](bool isWanted) {
        const OpResult result = platform::setStartsWithSession(isWanted);
        box->setChecked(platform::startsWithSession());
        if (result.ok)
            return;
        auto* const warning = new QMessageBox(QMessageBox::Warning, box->text(), result.message,
                                              QMessageBox::Ok, box);
        warning->setAttribute(Qt::WA_DeleteOnClose);
        warning->setTextFormat(Qt::PlainText);
        warning->open(); // Blocks the main window alone: a question can be answered.
    });
    return box;
}

} // namespace

MainWindow::MainWindow(Desk& desk)
    : m_desk(desk), m_model(new HistoryModel), m_state(new QLabel), m_pages(new QStackedWidget)
{
    setWindowTitle(tr("Korvane 授权台"));
    m_model->setParent(this);
    m_filtered.setSourceModel(m_model);
    m_filtered.setFilterKeyColumn(-1);
    m_filtered.setFilterRole(HistoryModel::WholeTextRole);
    m_filtered.setFilterCaseSensitivity(Qt::CaseInsensitive);
    m_state->setTextFormat(Qt::PlainText);
    m_state->setWordWrap(true);
    QFont bold = font();
    bold.setBold(true);
    m_state->setFont(bold);

    auto* const top = new QHBoxLayout;
    auto* const pause = new QPushButton(tr("暂时拒绝一切"));
    pause->setMinimumWidth(pause->sizeHint().width() + 2 * fontMetrics().height());
    pause->setMenu(new PauseMenu(m_desk, pause));
    top->addWidget(m_state, 1);
    top->addWidget(pause);
    m_pages->addWidget(makeEmptyState());
    m_pages->addWidget(makeHistory());
    auto* const layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(m_pages, 1);
    layout->addLayout(makeBottomRow());
    resize(usualSize);

    m_historyTimer.setSingleShot(true);
    m_historyTimer.setInterval(historyDelay);
    connect(&m_historyTimer, &QTimer::timeout, this, &MainWindow::showHistory);
    connect(&m_desk, &Desk::historyChanged, &m_historyTimer, qOverload<>(&QTimer::start));
    connect(&m_desk, &Desk::stateChanged, this, &MainWindow::showState);
    showState();
    showHistory();
}

QWidget* MainWindow::makeHistory()
{
    auto* const page = new QWidget;
    auto* const filter = new QLineEdit;
    filter->setPlaceholderText(tr("按文字筛选记录"));
    filter->setAccessibleName(tr("按文字筛选记录"));
    filter->setClearButtonEnabled(true);
    connect(filter, &QLineEdit::textChanged, &m_filtered,
            &QSortFilterProxyModel::setFilterFixedString);
    m_table = new QTableView;
    m_table->setAccessibleName(tr("授权记录"));
    m_table->setModel(&m_filtered);
    m_table->setSelectionBehavior(QTableView::SelectRows);
    m_table->setSelectionMode(QTableView::SingleSelection);
    m_table->setTabKeyNavigation(false);
    m_table->setWordWrap(false);
    m_table->verticalHeader()->hide();
    QHeaderView* const header = m_table->horizontalHeader();
    header->setHighlightSections(false);
    header->setSectionResizeMode(QHeaderView::ResizeToContents);
    header->setSectionResizeMode(HistoryModel::Summary, QHeaderView::Stretch);
    header->setResizeContentsPrecision(rowsForWidths);
    header->setMaximumSectionSize(usualSize.width() / 3);
    connect(m_table->selectionModel(), &QItemSelectionModel::currentRowChanged, this,
            &MainWindow::showDetails);
    connect(&m_filtered, &QSortFilterProxyModel::modelReset, this, &MainWindow::showDetails);

    m_details =
        new PlainTextView(mostDetailLines, tr("所选记录的详情"), PlainTextView::Look::Framed);
    m_details->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    auto* const copy = new QPushButton(tr("复制详情"));
    copy->setMinimumWidth(copy->sizeHint().width() + fontMetrics().height());
    connect(copy, &QPushButton::clicked, this, &MainWindow::copyDetails);
    auto* const shortcut = new QShortcut(QKeySequence::Copy, m_table);
    shortcut->setContext(Qt::WidgetShortcut);
    connect(shortcut, &QShortcut::activated, this, &MainWindow::copyDetails);

    auto* const splitter = new QSplitter(Qt::Vertical);
    splitter->addWidget(m_table);
    splitter->addWidget(m_details);
    splitter->setChildrenCollapsible(false);
    splitter->setSizes({usualSize.height() / 2, usualSize.height() / 2});
    auto* const layout = new QVBoxLayout(page);
    layout->setContentsMargins({});
    layout->addWidget(filter);
    layout->addWidget(splitter, 1);
    layout->addWidget(copy, 0, Qt::AlignRight);
    return page;
}

QWidget* MainWindow::makeEmptyState()
{
    constexpr int mostLines = 20;
    auto* const view = new PlainTextView(mostLines, tr("授权记录"));
    view->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    view->show(tr("还没有记录。\n\n"
                  "AI 想结束进程、停止服务、清理文件等时, 这里会弹出窗口询问您; "
                  "每次请求和您的决定都会列在这里。\n\n"
                  "连接客户端: 在 AI 客户端的 MCP 设置中加入以下内容, 再重新启动客户端。\n\n%1")
                   .arg(clientSettings()));
    return view;
}

QLayout* MainWindow::makeBottomRow()
{
    auto* const channel = new QLabel(tr("授权通道: %1").arg(m_desk.channelText()));
    channel->setTextFormat(Qt::PlainText);
    channel->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    channel->setWordWrap(true);
    auto* const quit = new QPushButton(tr("退出"));
    connect(quit, &QPushButton::clicked, qApp, &QCoreApplication::quit);
    auto* const row = new QHBoxLayout;
    row->addWidget(channel, 1);
    row->addWidget(makeAutostartBox());
    row->addWidget(quit);
    return row;
}

void MainWindow::bringUp()
{
    setWindowState(windowState() & ~Qt::WindowMinimized);
    show();
    raise();
    activateWindow();
    QApplication::alert(this); // Where the window system forbids that.
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (QSystemTrayIcon::isSystemTrayAvailable())
        return event->accept();
    event->ignore();
    showMinimized();
}

void MainWindow::showState()
{
    m_state->setText(stateText(m_desk));
}

void MainWindow::showHistory()
{
    const int row = currentRow();
    const quint64 id = row <= 0 ? 0 : m_model->idAt(row); // Who looks at the newest goes on so.
    m_model->show(m_desk.history());
    m_pages->setCurrentIndex(m_model->rowCount() == 0 ? 0 : 1);
    const int newRow = std::max(m_model->rowOf(id), 0);
    m_table->selectRow(m_filtered.mapFromSource(m_model->index(newRow, 0)).row());
}

void MainWindow::showDetails()
{
    const int row = currentRow();
    m_details->show(row < 0 ? QString() : m_model->detailsOf(row));
}

void MainWindow::copyDetails() const
{
    QApplication::clipboard()->setText(m_details->toPlainText());
}

int MainWindow::currentRow() const
{
    return m_filtered.mapToSource(m_table->currentIndex()).row();
}

} // namespace korvane::desk
