// What the suites of the desk share: a desk by a clock that the test sets, and who asks it.
#pragma once

#include "desk/asking_client.h"
#include "desk/desk.h"
#include "fake/fake_platform.h"

#include <QSignalSpy>

#include <deque>
#include <memory>
#include <optional>

namespace korvane::test {

using namespace std::chrono_literals;

/// Has whoever asks run that program, started by node, by code.
inline void setAsker(const QString& executable, const QString& first = u"code"_s)
{
    fake::platform().ancestors = {
        {.pid = 4711, .name = executable.section(u'/', -1), .exePath = executable},
        {.pid = 5, .name = u"node"_s, .exePath = {}},
        {.pid = 4, .name = first, .exePath = {}}};
}

class DeskSuite : public QObject
{
protected:
    std::optional<OwnTmp> m_tmp;
    std::chrono::milliseconds m_now{};
    desk::Clock m_clock{
        [this] { return m_now; },
        [this] { return QDateTime::fromMSecsSinceEpoch(1'700'000'000'000 + m_now.count()); }};
    std::unique_ptr<desk::Desk> m_desk;
    std::optional<QSignalSpy> m_ended;
    std::deque<AskingClient> m_clients; ///< In the order in which they came.
    quint64 m_id = 0;                   ///< The question that ask() was last about.

    /// Begins a test, with a desk that nobody has asked.
    void startDesk()
    {
        fake::reset();
        m_clients.clear();
        m_desk.reset();
        m_tmp.emplace();
        m_now = 1h;
        m_desk = std::make_unique<desk::Desk>(m_clock, path(u"data"_s));
        m_ended.emplace(m_desk.get(), &desk::Desk::questionEnded);
        QVERIFY2(m_desk->start(), qPrintable(m_desk->problem()));
    }

    QString path(const QString& name) const { return m_tmp->filePath(name); }

    void pass(std::chrono::milliseconds time)
    {
        m_now += time;
        m_desk->tick();
    }

    /// Has one more client ask. The question's id; 0 where none comes.
    quint64 ask(const QByteArray& line)
    {
        const qsizetype before = m_desk->questions().size();
        m_clients.emplace_back(line);
        const bool came = QTest::qWaitFor([&] { return m_desk->questions().size() > before; });
        return m_id = came ? m_desk->questions().last().id : 0;
    }
    quint64 ask(const consent::Request& request = harmless)
    {
        return ask(consent::encodeRequest(request));
    }

    void yes() { m_desk->allow(m_id); }
    void no() { m_desk->refuse(m_id); }

    QByteArray lastOutcome() const
    {
        return m_ended->isEmpty()
                   ? QByteArray()
                   : desk::outcomeName(m_ended->last().at(1).value<desk::Outcome>()).toUtf8();
    }
};

} // namespace korvane::test
