// A view of words from outside, which cannot look like anything but text.
#pragma once

#include <QPlainTextEdit>

namespace korvane::desk {

/// Shows text to be read and copied: never rich text, no link; what is not seen or breaks a line
/// becomes U+FFFD. It wraps anywhere, is as high as its text up to `mostLines`, and scrolls from there.
class PlainTextView : public QPlainTextEdit
{
    Q_OBJECT

public:
    enum class Look {
        Framed,
        Flat, ///< Without a frame and a background of its own, as a label.
    };

    /// `name` is what a screen reader calls it.
    PlainTextView(int mostLines, const QString& name, Look look = Look::Flat);

    /// Shows `text`, which may be hostile; its line feeds begin lines.
    void show(const QString& text);

    /// Wants the height that its text takes where the view has that width, and no more.
    void wrapWithin(int width);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    /// What is around the text, the scroll bar aside.
    int border() const;
    int widthOf(int columns) const;
    int heightOf(qsizetype lines) const;

    int m_mostLines;
    QList<int> m_lineHeights; ///< At most m_mostLines.
};

} // namespace korvane::desk
