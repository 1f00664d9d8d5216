#include "hostschedule.h"

#include <cmath>
#include <utility>

namespace host {

ProfileSchedule::ProfileSchedule(std::vector<ProfileEvent> events) : m_events(std::move(events))
{
    m_next.reserve(m_events.size());
    for (const ProfileEvent& event : m_events) {
        m_next.push_back(event.atS);
    }
}

std::vector<ProfileEvent> ProfileSchedule::takeDue(double elapsedS)
{
    std::vector<ProfileEvent> due;
    for (;;) {
        size_t best = m_events.size();
        for (size_t i = 0; i < m_events.size(); ++i) {
            // Strictly earlier wins, so equal times keep file order.
            if (m_next[i] <= elapsedS && (best == m_events.size() || m_next[i] < m_next[best])) {
                best = i;
            }
        }
        if (best == m_events.size()) {
            return due;
        }
        due.push_back(m_events[best]);
        const ProfileEvent& event = m_events[best];
        m_next[best] = event.everyS > 0.0 ? m_next[best] + event.everyS : INFINITY;
    }
}

}  // namespace host
