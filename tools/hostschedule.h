#pragma once
// When a profile's events run: each at its time, a repeating one again every
// period after that. Thread-bound: one caller drives it.

#include <cstddef>
#include <vector>

#include "hostprofile.h"

namespace host {

class ProfileSchedule {
public:
    explicit ProfileSchedule(std::vector<ProfileEvent> events);

    /// Every event occurrence due at `elapsedS` (s since the start) or before
    /// and not yet returned, ordered by due time, then by file order. A
    /// repeating event whose period passed several times returns once per
    /// occurrence.
    std::vector<ProfileEvent> takeDue(double elapsedS);

private:
    std::vector<ProfileEvent> m_events;
    std::vector<double> m_next;  ///< next due time of each event, s; +inf when done
};

}  // namespace host
