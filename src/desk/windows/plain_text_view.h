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

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

private:
    int textWidth() const;
    QSize sizeOfLines(qsizetype count) const;

    int m_mostLines;
    QList<int> m_lineHeights; ///< Of those it takes at its usual width, at most m_mostLines.
};

} // namespace korvane::desk
