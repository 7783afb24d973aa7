// SPDX-License-Identifier: MIT
// Limits how many frames are logged.
#include "line_budget.h"

#include <algorithm>

namespace pmtud_linux {

bool LineBudget::take(Clock::time_point now) {
    m_spent = std::max(m_spent, now - kBurst * kInterval);
    if (m_spent + kInterval > now) return false;
    m_spent += kInterval;
    return true;
}

}  // namespace pmtud_linux
