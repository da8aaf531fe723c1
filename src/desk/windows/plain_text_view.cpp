// Plain text in a read-only editor.
#include "desk/windows/plain_text_view.h"

#include "consent/shown_text.h"

#include <QScrollBar>
#include <QTextLayout>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace korvane::desk {

using namespace Qt::StringLiterals;

namespace {

constexpr int usualColumns = 76;
constexpr int spare = 3;            ///< Pixels, for what the editor rounds.
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
        line = consent::shownText(line);
    setPlainText(lines.join(u'\n'));
    m_lineHeights.clear();
    for (const QString& line : std::as_const(lines))
        addLineHeights(line, font(), textWidth(), m_mostLines, m_lineHeights);
    updateGeometry();
}

QSize PlainTextView::sizeHint() const
{
    return sizeOfLines(m_lineHeights.size());
}

QSize PlainTextView::minimumSizeHint() const
{
    return sizeOfLines(std::min(m_lineHeights.size(), leastLines));
}

int PlainTextView::textWidth() const
{
    return usualColumns * fontMetrics().averageCharWidth();
}

QSize PlainTextView::sizeOfLines(qsizetype count) const
{
    const int border = 2 * (frameWidth() + static_cast<int>(document()->documentMargin()));
    const int height = std::accumulate(m_lineHeights.begin(), m_lineHeights.begin() + count, spare);
    return {textWidth() + border + verticalScrollBar()->sizeHint().width(), height + border};
}

} // namespace korvane::desk
