#include "Timeline.h"

namespace {

constexpr unsigned int kHour = 3600;

}  // namespace

void Timeline::Mark(unsigned int second) {
    if (Has(second))
        return;
    Hour& hour = m_hours[second / kHour % 2];
    if (hour.number != second / kHour) {
        hour.mask.Clear();
        hour.number = second / kHour;
    }
    hour.mask.Enable(second % kHour, true, 1);
    ++m_seconds;
}

bool Timeline::Has(unsigned int second) const {
    const Hour& hour = m_hours[second / kHour % 2];
    bool found = false;
    return hour.number == second / kHour && hour.mask.Check(second % kHour, found, 1) == 0 && found;
}

std::vector<Run> Timeline::RunsOf(unsigned int first, unsigned int count) const {
    std::vector<Run> runs;
    for (unsigned int second = first; second < first + count; ++second) {
        if (!Has(second))
            continue;
        if (runs.empty() || runs.back().first + runs.back().count != second)
            runs.push_back({second, 0});
        ++runs.back().count;
    }
    return runs;
}
