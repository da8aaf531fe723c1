// Contrast, and colours that have enough of it.
#include "desk/windows/readable_style.h"

#include <QPainter>
#include <QPalette>
#include <QStyleOption>

#include <algorithm>
#include <cmath>

namespace korvane::desk {

namespace {

double luminanceOf(const QColor& color)
{
    const auto linear = [](float value) {
        constexpr double linearLimit = 0.04045;
        const auto part = static_cast<double>(value);
        return part <= linearLimit ? part / 12.92 : std::pow((part + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) +
           0.0722 * linear(color.blueF());
}

QColor mixed(const QColor& color, const QColor& other, float share)
{
    const auto part = [share](float own, float others) { return own + (others - own) * share; };
    return QColor::fromRgbF(part(color.redF(), other.redF()), part(color.greenF(), other.greenF()),
                            part(color.blueF(), other.blueF()));
}

/// As little nearer to `extreme` as it takes to be told from `other`.
QColor toldFrom(const QColor& other, const QColor& color, const QColor& extreme)
{
    constexpr int steps = 32;
    QColor result = color;
    for (int step = 1; contrastOf(result, other) < ReadableStyle::leastContrast && step <= steps;
         ++step)
        result = mixed(color, extreme, static_cast<float>(step) / steps);
    return result;
}

} // namespace

double contrastOf(const QColor& one, const QColor& other)
{
    constexpr double flare = 0.05;
    const auto [low, high] = std::minmax({luminanceOf(one), luminanceOf(other)});
    return (high + flare) / (low + flare);
}

void ReadableStyle::polish(QPalette& palette)
{
    QProxyStyle::polish(palette);
    for (const auto group : {QPalette::Active, QPalette::Inactive}) {
        const auto color = [&](QPalette::ColorRole role) { return palette.color(group, role); };
        const QColor base = color(QPalette::Base);
        const QColor hint = color(QPalette::PlaceholderText); // It may be half transparent.
        palette.setColor(group, QPalette::PlaceholderText,
                         toldFrom(base, mixed(base, hint, hint.alphaF()), color(QPalette::Text)));
        const QColor chosen = color(QPalette::HighlightedText);
        const QColor around = color(QPalette::Highlight);
        const bool isLight = luminanceOf(chosen) > luminanceOf(around);
        palette.setColor(group, QPalette::Highlight,
                         toldFrom(chosen, around, isLight ? Qt::black : Qt::white));
    }
}

void ReadableStyle::drawPrimitive(PrimitiveElement element, const QStyleOption* option,
                                  QPainter* painter, const QWidget* widget) const
{
    QProxyStyle::drawPrimitive(element, option, painter, widget);
    if (element != PE_IndicatorCheckBox)
        return;
    // In dark colours nothing else would show where the box is.
    painter->save();
    painter->setPen(option->palette.color(QPalette::PlaceholderText));
    painter->setBrush(Qt::NoBrush);
    painter->drawRect(option->rect.adjusted(0, 0, -1, -1));
    painter->restore();
}

} // namespace korvane::desk
