// The desktop's own style, in colours that can be read.
#pragma once

#include <QColor>
#include <QProxyStyle>

namespace korvane::desk {

/// How well one colour is read on the other, from 1 to 21, as web pages are judged (WCAG 2).
double contrastOf(const QColor& one, const QColor& other);

/// The style that the system chose, in its colours; but a text that would be hard to read is shown with
/// more contrast. Follows the system where that turns dark or light.
class ReadableStyle : public QProxyStyle
{
    Q_OBJECT

public:
    /// What every text has at least.
    static constexpr double leastContrast = 4.5;

    using QProxyStyle::polish;
    void polish(QPalette& palette) override;

    void drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                       const QWidget* widget) const override;
};

} // namespace korvane::desk
