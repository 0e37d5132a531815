// Spans of time in slots of one second: a bit for each slot, or values of a few of them.
#ifndef KTBASE_KTTIMEMASK_H
#define KTBASE_KTTIMEMASK_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTList.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTTime.h"

/// A bit for each second from a start time on. A mask of 0 seconds is empty. Not locked.
///
/// The calls that take a time count whole seconds from the start, milliseconds left out. A time
/// after the start is that slot. A time at or before the start is taken as that many milliseconds
/// before it, so the span covers slots 0 to (seconds * 1000 - before) / 1000 - 1: the mask from
/// 10:00:00, asked for 5 seconds from 09:59:58, covers slots 0 to 3. Programs count on it.
class KTBASE_API CKTTimeMaskBIT : public CKTObject {
public:
    /// As Init; empty when memory is out.
    CKTTimeMaskBIT(CKTTime* start, unsigned int seconds);
    CKTTimeMaskBIT(const CKTTimeMaskBIT&) = delete;
    CKTTimeMaskBIT& operator=(const CKTTimeMaskBIT&) = delete;
    ~CKTTimeMaskBIT() override;

    /// Begins anew with all bits off. start null: now, in UTC. 0 seconds leave the start time.
    /// Returns 0, or -6 and an empty mask.
    int Init(CKTTime* start, unsigned int seconds);
    int Clear();  ///< All bits off. Returns 0, or -7 for an empty mask.

    /// Turns slots slot to slot + n - 1, cut at the end, on or off. Returns 0, or -4 when slot is
    /// not below the count.
    int Enable(unsigned int slot, bool on, unsigned int n);
    /// found: whether one of these slots is on; left alone by -4.
    int Check(unsigned int slot, bool& found, unsigned int n) const;
    /// Returns 0, or -4 when the span does not meet the mask.
    int Enable(CKTTime& t, bool on, unsigned int seconds);
    /// The same; found is false after -4.
    int Check(CKTTime& t, bool& found, unsigned int seconds) const;

    /// Each returns 0, or -7 for an empty mask.
    int GetTimeS(CKTTime& out) const;
    /// The end, exclusive. An end on another day than the start is shifted as CKTTime::Add tells.
    int GetTimeE(CKTTime& out) const;

private:
    int FindSlots(const CKTTime& t, unsigned int seconds, unsigned int& slot,
                  unsigned int& n) const;

    CKTTime m_start;
    unsigned int m_count;  // of slots
    unsigned int* m_bits;  // slot i is bit i % 32 of word i / 32; owned
};

/// Values other than 0 of some of the seconds from a start time on, in ascending order. A mask of 0
/// seconds is empty. Not locked. Finding a slot walks the entries; appending does not.
///
/// The calls that take a time use slot (whole seconds from the start) / 1000: unlike in the bit
/// mask, the first 1000 seconds are slot 0. Programs count on it.
class KTBASE_API CKTTimeMaskValue : public CKTObject {
public:
    /// As Init.
    CKTTimeMaskValue(CKTTime* start, unsigned int seconds);
    CKTTimeMaskValue(const CKTTimeMaskValue&) = delete;
    CKTTimeMaskValue& operator=(const CKTTimeMaskValue&) = delete;
    ~CKTTimeMaskValue() override;

    /// Begins anew without values. start null: now, in UTC. 0 seconds leave the start time.
    /// Returns 0.
    int Init(CKTTime* start, unsigned int seconds);
    int Clear();  ///< Removes all values. Returns 0.

    /// Value 0 removes. Returns 0; -4 when slot is not below the count; -6 when memory is out.
    int SetValue(unsigned int slot, unsigned int value);
    /// value: 0 for a slot without. Returns 0, or -4 when slot is not below the count.
    int GetValue(unsigned int slot, unsigned int& value) const;
    /// found: 1 when one of the slots slot to slot + n - 1 has a value, else 0. Returns 0 for slots
    /// beyond the end too.
    int Check(unsigned int slot, int& found, unsigned int n) const;
    /// As the calls by slot; also -4 for a time before the start.
    int SetValue(CKTTime& t, unsigned int value);
    /// The same; value is 0 after -4.
    int GetValue(CKTTime& t, unsigned int& value) const;
    /// Returns 0. Times up to 999 seconds before the start are slot 0 as well.
    int Check(CKTTime& t, int& found, unsigned int n) const;

    /// Walk the values in the order of their slots. pos stands for the entry after the one handed
    /// out, which may be removed meanwhile. Return 0, or -11 when there is no (further) value.
    int GetFirstValue(void*& pos, unsigned int& slot, unsigned int& value) const;
    int GetNextValue(void*& pos, unsigned int& slot, unsigned int& value) const;

    /// As in the bit mask.
    int GetTimeS(CKTTime& out) const;
    int GetTimeE(CKTTime& out) const;
    /// The time of a slot, of any number. Returns 0, or -7 for an empty mask.
    int GetTime(CKTTime& out, unsigned int slot) const;

private:
    void* FindFrom(unsigned int slot) const;

    CKTTime m_start;
    unsigned int m_count;  // of slots
    CKTList m_entries;     // ascending slots, each from ZMKMalloc
};

#endif
