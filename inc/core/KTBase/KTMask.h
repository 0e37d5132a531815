// Bit masks and integer arrays of variable length.
#ifndef KTBASE_KTMASK_H
#define KTBASE_KTMASK_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

/// A bit mask or an integer array, to be embedded in other records. Zero a new one before its first
/// call: Init and Copy free the words that it holds.
struct tag_KTMASK {
    unsigned int count;  // of words: 32 bits of a mask each, or elements
    unsigned int* data;  // owned, from ZMKCalloc; null when count is 0
};

// No record is locked: one thread at a time, or readers only. A null record, and a record with a
// count but no words, is answered as a call says, else with false. When memory is out a call gives
// false and leaves the record that it was to fill empty.

// ---- Masks ----
// Bit n is bit n % 32 of word n / 32, the lowest first. The bits that fill up the last word are
// bits as the others.

/// *out: a new record of bits zero bits, for KTMASK_Free. null on failure.
KTBASE_API bool KTMASK_Alloc(tag_KTMASK** out, unsigned int bits);
/// Frees the words and the record, and nulls *p. false only for a null p.
KTBASE_API bool KTMASK_Free(tag_KTMASK** p);
/// Makes room for bits bits, all of them zero.
KTBASE_API bool KTMASK_Init(tag_KTMASK* m, unsigned int bits);
/// Frees the words.
KTBASE_API bool KTMASK_Clear(tag_KTMASK* m);
/// dst takes the size and the bits of src; words that src lacks are zero.
KTBASE_API bool KTMASK_Copy(tag_KTMASK* dst, const tag_KTMASK* src);
/// A record equals itself; others by size and words.
KTBASE_API bool KTMASK_Equals(const tag_KTMASK* a, const tag_KTMASK* b);
KTBASE_API bool KTMASK_Check(const tag_KTMASK* m, unsigned int bit);
/// Sets the bit, or clears it when value is 0. A negative bit stands for all of them.
/// Returns true for all bits, false for a single bit whether it was in range or not: programs
/// count on that, and none can read it as success or failure.
KTBASE_API bool KTMASK_Set(tag_KTMASK* m, int bit, int value);
/// true also for a null and for no words.
KTBASE_API bool KTMASK_IsEmpty(const tag_KTMASK* m);
/// In place on dst. false, and dst unchanged, when the sizes differ.
KTBASE_API bool KTMASK_AND(tag_KTMASK* dst, const tag_KTMASK* src);
KTBASE_API bool KTMASK_OR(tag_KTMASK* dst, const tag_KTMASK* src);
KTBASE_API bool KTMASK_XOR(tag_KTMASK* dst, const tag_KTMASK* src);
KTBASE_API bool KTMASK_ANDNOT(tag_KTMASK* dst, const tag_KTMASK* src);  ///< dst &= ~src
/// false only for a null.
KTBASE_API bool KTMASK_NOT(tag_KTMASK* m);
/// Number of set bits.
KTBASE_API unsigned int KTMASK_GetChecked(const tag_KTMASK* m);

// ---- Integer arrays ----

/// As the mask calls of the same names; count is of elements.
KTBASE_API bool KTARRAY_UINT_Alloc(tag_KTMASK** out, unsigned int count);
KTBASE_API bool KTARRAY_UINT_Free(tag_KTMASK** p);
KTBASE_API bool KTARRAY_UINT_Init(tag_KTMASK* a, unsigned int count);
KTBASE_API bool KTARRAY_UINT_Clear(tag_KTMASK* a);
/// dst takes the size and the elements of src; it is left empty when src has no elements.
KTBASE_API bool KTARRAY_UINT_Copy(tag_KTMASK* dst, const tag_KTMASK* src);
KTBASE_API bool KTARRAY_UINT_Equals(const tag_KTMASK* a, const tag_KTMASK* b);

/// A mask that frees itself. Copying a null gives an empty mask, assigning one changes nothing.
/// A constructor that runs out of memory leaves the mask empty.
class KTBASE_API IKTMask : public IKTBaseOBJ {
public:
    IKTMask();
    explicit IKTMask(unsigned int bits);
    IKTMask(const IKTMask& other);
    IKTMask(const IKTMask* other);
    IKTMask(const tag_KTMASK& other);
    IKTMask(const tag_KTMASK* other);
    ~IKTMask() override;

    bool Init(unsigned int bits);          ///< As KTMASK_Init.
    bool Check(unsigned int bit);          ///< As KTMASK_Check.
    bool Set(int bit, int value);          ///< As KTMASK_Set: false for every single bit.
    bool operator=(const IKTMask& other);  ///< The three: false for a null and without memory.
    bool operator=(const tag_KTMASK& other);
    bool operator=(const tag_KTMASK* other);
    bool operator==(const IKTMask& other) const;
    bool operator==(const tag_KTMASK& other) const;
    bool operator==(const tag_KTMASK* other) const;
    const tag_KTMASK* GetMask() const;  ///< The mask's own record, valid as long as the mask.

private:
    tag_KTMASK m_mask;
};

#endif
