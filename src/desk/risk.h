// What each action risks, in the desk's own words.
#pragma once

#include <QString>

namespace korvane::desk {

/// An action as the desk knows it, in the person's language.
struct Risk
{
    bool isKnown = false; ///< Else the risk is a plain warning, for an action nobody has heard of.
    QString text;         ///< One line.
    QString allow;        ///< What the button does: "允许结束进程".
};

/// The risk of the action of that machine-readable name.
Risk riskOf(const QString& action);

} // namespace korvane::desk
