// Counting, and the sentence for the user.
#include "platform/portable/recycle_tally.h"

#include <QStringList>

#include <algorithm>

namespace korvane::platform {

void RecycleTally::addMovedInPart()
{
    ++m_moved;
    ++m_inPart;
}

void RecycleTally::addSkipped(const QString& why)
{
    ++m_skipped;
    const auto known = std::find_if(m_reasons.begin(), m_reasons.end(),
                                    [&why](const auto& reason) { return reason.first == why; });
    if (known == m_reasons.end())
        m_reasons.emplace_back(why, 1);
    else
        ++known->second;
}

OpResult RecycleTally::result() const
{
    QStringList parts;
    if (m_moved > 0)
        parts << QStringLiteral("已移到回收站 %1 项").arg(m_moved);
    if (m_inPart > 0)
        parts << QStringLiteral("其中 %1 项的原件有变动, 未全部移除").arg(m_inPart);
    if (m_skipped > 0)
        parts << skippedText();
    if (parts.isEmpty())
        parts << QStringLiteral("没有需要移动的内容 (可能已被删除)");
    if (m_moved == 0 && m_skipped > 0)
        parts.prepend(QStringLiteral("没有内容被移到回收站"));
    return {m_moved > 0 || m_skipped == 0, parts.join(QStringLiteral(", "))};
}

QString RecycleTally::skippedText() const
{
    QStringList reasons;
    for (const auto& [why, count] : m_reasons)
        reasons << why + u' ' + QString::number(count);
    return QStringLiteral("跳过 %1 项 (%2)")
        .arg(QString::number(m_skipped), reasons.join(QStringLiteral(", ")));
}

} // namespace korvane::platform
