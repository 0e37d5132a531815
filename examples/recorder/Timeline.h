// The seconds in which frames of a camera were recorded, of this hour and the one before.
#ifndef KTRECORDER_TIMELINE_H
#define KTRECORDER_TIMELINE_H

#include <KTBase/KTTimeMask.h>

#include <vector>

#include "Status.h"

/// Two time masks of an hour each: when an hour has passed, the older one begins anew, so that a
/// recorder may run for months. Seconds count from the recorder's start. Not locked.
class Timeline {
public:
    void Mark(unsigned int second);
    bool Has(unsigned int second) const;
    /// The runs among count seconds from first on.
    std::vector<Run> RunsOf(unsigned int first, unsigned int count) const;
    unsigned long long GetSeconds() const { return m_seconds; }  ///< marked so far

private:
    struct Hour {
        CKTTimeMaskBIT mask{nullptr, 3600};
        unsigned int number = 0;  // of the hour that it holds
    };

    Hour m_hours[2];  // of even and of odd numbers
    unsigned long long m_seconds = 0;
};

#endif
