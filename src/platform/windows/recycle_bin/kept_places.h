// The directories without which the system, or the session, is not what it was.
#pragma once

#include <QString>
#include <QStringList>

namespace korvane::windows_platform {

/// What is never moved away, whatever it is named by: compared are paths in which no links, short names
/// or letter cases are left.
class KeptPlaces
{
public:
    KeptPlaces();

    /// Why nothing that lies in the local directory `directory` is moved; empty where that may be. Is
    /// asked before whyNot() of its entries.
    QString whyNothingIn(const QString& directory);

    /// Why the entry is not moved: it is such a place, or holds one.
    QString whyNot(const QString& entry) const;

    /// Whether the entry leads somewhere else.
    bool isLink(const QString& entry) const;

private:
    QString ownPath(const QString& entry) const;

    QStringList m_system; ///< The system's and the user's.
    QString m_temp;
    QString m_current;
    QString m_directory; ///< The one that was asked for last.
};

} // namespace korvane::windows_platform
