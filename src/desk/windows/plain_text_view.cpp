// Plain text in a read-only editor.
#include "desk/windows/plain_text_view.h"

#include "consent/shown_text.h"

#include <QScrollBar>
#include <QTextLayout>

#include <algorithm>

namespace korvane::desk {

using namespace Qt::StringLiterals;

namespace {

constexpr int usualColumns = 76;
constexpr int leastLines = 3; ///< Where the screen is low.

/// Lines that `text` takes when it is wrapped, at most `most`.
int wrappedLines(const QString& text, const QFont& font, int width, int most)
{
    QTextLayout layout(text, font);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    layout.beginLayout();
    int lines = 0;
    for (QTextLine line = layout.createLine(); line.isValid() && lines < most; ++lines) {
        line.setLineWidth(width);
        line = layout.createLine();
    }
    layout.endLayout();
    return std::max(lines, 1);
}

} // namespace

PlainTextView::PlainTextView(int mostLines, QWidget* parent)
    : QPlainTextEdit(parent), m_mostLines(mostLines)
{
    setReadOnly(true);
    setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    setUndoRedoEnabled(false);
    setTabChangesFocus(true);
    setContextMenuPolicy(Qt::NoContextMenu);
    setWordWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Maximum);
}

void PlainTextView::show(const QString& text)
{
    QStringList lines = text.split(u'\n');
    for (QString& line : lines)
        line = consent::shownText(line);
    setPlainText(lines.join(u'\n'));
    m_lines = 0;
    for (const QString& line : std::as_const(lines)) {
        if (m_lines < m_mostLines)
            m_lines += wrappedLines(line, font(), textWidth(), m_mostLines);
    }
    m_lines = std::min(m_lines, m_mostLines);
    updateGeometry();
}

void PlainTextView::setFlat()
{
    setFrameShape(QFrame::NoFrame);
    viewport()->setAutoFillBackground(false);
}

QSize PlainTextView::sizeHint() const
{
    return sizeOfLines(m_lines);
}

QSize PlainTextView::minimumSizeHint() const
{
    return sizeOfLines(std::min(m_lines, leastLines));
}

int PlainTextView::textWidth() const
{
    return usualColumns * fontMetrics().averageCharWidth();
}

QSize PlainTextView::sizeOfLines(int lines) const
{
    const int border = 2 * (frameWidth() + static_cast<int>(document()->documentMargin()));
    return {textWidth() + border + verticalScrollBar()->sizeHint().width(),
            lines * fontMetrics().lineSpacing() + border + 1};
}

} // namespace korvane::desk
