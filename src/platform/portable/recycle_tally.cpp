// Counting, and the sentence for the user.
#include "platform/portable/recycle_tally.h"

#include <QStringList>

#include <algorithm>

namespace korvane::platform {

using namespace Qt::StringLiterals;

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
        parts << u"已移到回收站 %1 项"_s.arg(m_moved);
    if (m_inPart > 0)
        parts << u"其中 %1 项的原件有变动, 未全部移除"_s.arg(m_inPart);
    if (m_skipped > 0)
        parts << skippedText();
    if (parts.isEmpty())
        parts << u"没有需要移动的内容 (可能已被删除)"_s;
    if (m_moved == 0 && m_skipped > 0)
        parts.prepend(u"没有内容被移到回收站"_s);
    return {m_moved > 0 || m_skipped == 0, parts.join(u", "_s)};
}

QString RecycleTally::skippedText() const
{
    QStringList reasons;
    for (const auto& [why, count] : m_reasons)
        reasons << why + u' ' + QString::number(count);
    return u"跳过 %1 项 (%2)"_s.arg(QString::number(m_skipped), reasons.join(u", "_s));
}

} // namespace korvane::platform
