// Plain text in a read-only editor.
#include "desk/windows/plain_text_view.h"

#include "consent/shown_text.h"

#include <QResizeEvent>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextLayout>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace korvane::desk {

using namespace Qt::StringLiterals;

namespace {

constexpr int usualColumns = 76;
constexpr int leastColumns = 36; ///< Where the screen, or the part of it for a window, is narrow.
constexpr int spare = 3;         ///< Pixels, for what the editor rounds.
constexpr qsizetype leastLines = 3; ///< Where the screen is low.

/// Adds the heights of the lines that `text` takes when it is wrapped, as long as there are fewer than
/// `most`. Fonts that stand in for others make some lines higher.
void addLineHeights(const QString& text, const QFont& font, int width, int most,
                    QList<int>& heights)
{
    QTextLayout layout(text, font);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    layout.beginLayout();
    while (heights.size() < most) {
        QTextLine line = layout.createLine();
        if (!line.isValid())
            break;
        line.setLeadingIncluded(true); // As the editor has it.
        line.setLineWidth(width);
        heights.append(static_cast<int>(std::ceil(line.height())));
    }
    layout.endLayout();
}

/// Laying out a line takes time by the square of its length: for the longest request, most of the time
/// that there is to answer.
QString broken(const QString& line)
{
    constexpr qsizetype mostAtOnce = 4096;
    QString pieces;
    for (qsizetype start = 0; start < line.size();) {
        qsizetype size = std::min(mostAtOnce, line.size() - start);
        if (start + size < line.size() && line.at(start + size).isLowSurrogate())
            --size;
        pieces += (start > 0 ? u"\n"_s : QString()) + line.sliced(start, size);
        start += size;
    }
    return pieces;
}

} // namespace

PlainTextView::PlainTextView(int mostLines, const QString& name, Look look) : m_mostLines(mostLines)
{
    setAccessibleName(name);
    setReadOnly(true);
    setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    setUndoRedoEnabled(false);
    setTabChangesFocus(true);
    setContextMenuPolicy(Qt::NoContextMenu);
    setWordWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Maximum);
    if (look == Look::Flat) {
        setFrameShape(QFrame::NoFrame);
        viewport()->setAutoFillBackground(false);
        document()->setDocumentMargin(0);
    }
}

void PlainTextView::show(const QString& text)
{
    QStringList lines = text.split(u'\n');
    for (QString& line : lines)
        line = broken(consent::shownLine(line));
    setPlainText(lines.join(u'\n'));
    wrapWithin(widthOf(usualColumns));
}

void PlainTextView::wrapWithin(int width)
{
    // Room for the scroll bar, even where none is needed: without it, it could come and stay.
    const int textWidth = width - border() - verticalScrollBar()->sizeHint().width();
    m_lineHeights.clear();
    for (QTextBlock block = document()->begin();
         block.isValid() && m_lineHeights.size() < m_mostLines; block = block.next())
        addLineHeights(block.text(), font(), textWidth, m_mostLines, m_lineHeights);
    updateGeometry();
}

QSize PlainTextView::sizeHint() const
{
    return {widthOf(usualColumns), heightOf(m_lineHeights.size())};
}

QSize PlainTextView::minimumSizeHint() const
{
    return {widthOf(leastColumns), heightOf(std::min(m_lineHeights.size(), leastLines))};
}

void PlainTextView::resizeEvent(QResizeEvent* event)
{
    QPlainTextEdit::resizeEvent(event);
    if (event->size().width() != event->oldSize().width())
        wrapWithin(width());
}

int PlainTextView::border() const
{
    return 2 * (frameWidth() + static_cast<int>(document()->documentMargin()));
}

int PlainTextView::widthOf(int columns) const
{
    return columns * fontMetrics().averageCharWidth() + border() +
           verticalScrollBar()->sizeHint().width();
}

int PlainTextView::heightOf(qsizetype lines) const
{
    return std::accumulate(m_lineHeights.begin(), m_lineHeights.begin() + lines, spare) + border();
}

} // namespace korvane::desk
