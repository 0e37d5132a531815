// The string: growable text and byte buffer, with helpers that scan text without copying it.
#ifndef KTBASE_KTSTRING_H
#define KTBASE_KTSTRING_H

#include <cstdarg>
#include <cstddef>

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

class CKTTime;

/// Growable byte buffer, always NUL-terminated once it has a buffer, for text and for binary data.
/// Owns its buffer. A string belongs to one thread at a time.
///
/// The appending calls return the number of bytes appended, 0 when there is nothing to append, -1
/// when the buffer cannot grow; the content then stays as it was. Their source may lie in the
/// string's own buffer. One call takes at most 0x7FFFFFFF bytes, for its result is an int.
class KTBASE_API CKTString : public IKTBaseOBJ {
public:
    /// Empty, without buffer. Capacities grow in multiples of 32, without limit.
    CKTString();
    /// maxCapacity: most bytes allocated, the terminator included; 0 for no limit.
    /// growShift: capacities are multiples of 1 << growShift; 0 for exact sizes. Above 31 the
    /// string never grows.
    explicit CKTString(unsigned short maxCapacity, unsigned short growShift = 5);
    /// Copy of s, without buffer when s is null or empty. Grows by exact sizes, without limit.
    CKTString(const char* s);
    /// Copy of other's bytes, embedded NULs included. Its limits are not copied: a copy grows by
    /// exact sizes, without limit.
    CKTString(const CKTString& other);
    ~CKTString() override;

    /// Prints "CKTString = %s\n" through KTPrintf when there is a buffer.
    virtual void Dump();
    /// Appends other's bytes. -1 also for a null pointer.
    virtual int operator<<(const CKTString* other);
    virtual int operator<<(const CKTString& other);
    virtual int operator<<(const char* s);

    // ---- storage ----

    /// Makes room for n more bytes and their terminator. Returns n, or -1: nothing has changed.
    /// Grows one step early: exactly GetSpace() more bytes already make a larger buffer.
    int AllocBuffer(unsigned int n);
    /// Frees the buffer, then makes room for n bytes. Returns as AllocBuffer.
    int Init(unsigned int n);
    /// The buffer is kept for what comes next unless freeBuffer is set.
    void Empty(bool freeBuffer);
    int IsEmpty() const;             ///< 1 or 0
    unsigned int GetLength() const;  ///< bytes in use, without the terminator
    unsigned int Size() const;       ///< bytes allocated, 0 without buffer
    /// Borrowed until the string grows, is emptied with freeing or is destroyed; null without
    /// buffer.
    char* GetBuffer() const;
    unsigned int GetSpace() const;  ///< bytes free beside the terminator
    /// Takes n bytes that the caller wrote behind the end into the string. Returns the new length,
    /// 0 for n below 1, -1 when they do not fit the capacity.
    int Add(int n);
    /// Drops n bytes from the front; all of them for n below 0. Returns the new length.
    int Flush(int n);

    /// Copies from ZMKMalloc; the caller frees them with ZMKFree. Null when the string is empty or
    /// memory is out.
    char* Clone();
    static char* Clone(const CKTString& s);
    /// Copies at most maxLen bytes of s up to its NUL; all of it for maxLen 0. Null for null s.
    static char* Clone(const char* s, std::size_t maxLen);
    /// Puts a copy of at most len bytes of s (all for len 0) into the heap text *slot and frees the
    /// old one; s may lie in it. Equal texts are left alone. Null s, or no memory, leaves null.
    static void Clone(char** slot, const char* s, std::size_t len);

    // ---- appending ----

    /// Appends len bytes of s, up to its NUL for len 0.
    int AppendSTR(const char* s, unsigned int len);
    int AppendDAT(const unsigned char* data, unsigned int len);
    /// Appends formatted text. -1 also when the C runtime refuses the format. The arguments may lie
    /// in the string's own buffer.
    int Append(const char* format, ...) KTBASE_PRINTF(2, 3);
    /// The same with an argument list, which is copied and stays with the caller. -1 for a null.
    int Append(va_list* args, const char* format) KTBASE_PRINTF(3, 0);
    /// Appends count copies of c. Returns count, or -6 when the buffer cannot grow.
    int AppendChar(char c, unsigned int count);
    /// Appends "%04d/%02d/%02d %02d:%02d:%02d.%03d": date, time of day, milliseconds. Null appends
    /// nothing. The second argument is not used.
    int AppendTime(CKTTime* t, int);
    /// Appends a duration: "%02u:%02u:%02u.%03u" (hours may pass 99), or with asSeconds "%llu.%d":
    /// seconds and the milliseconds left, not padded (1005 ms reads 1.5; log readers rely on it).
    int AppendTime(unsigned long long ms, int asSeconds);
    void operator+=(const char* s);
    int operator+=(const CKTString& other);

    // ---- assignment and access ----

    /// Empties the string, keeping its buffer and limits, then appends. When it cannot grow it
    /// stays empty. s may lie in the string's own buffer.
    void operator=(const char* s);
    void operator=(const CKTString& other);
    /// The byte at i; 0 outside the string.
    char operator[](int i);
    /// Replaces every occurrence of from, left to right. Without one, with an empty from or a null,
    /// and when the result does not fit, nothing changes.
    CKTString& Replace(const char* from, const char* to);
    void ToUpper();  ///< ASCII letters only
    void ToLower();  ///< ASCII letters only

    // ---- comparison: 1 or 0 ----

    /// Equality up to the NUL. An empty string, with or without buffer, equals null and "".
    int EqualTo(const char* s) const;
    int EqualTo(const CKTString& other) const;
    /// Both answer 0 for a null s and for a string without buffer: that one is neither equal nor
    /// unequal to anything, "" included. Otherwise the whole length counts.
    int operator==(const char* s);
    int operator!=(const char* s);
    /// Null and "" are equal.
    static int IsEqual(const char* a, const char* b);
    static int IsEmpty(const char* s);
    /// Whether [begin, end) starts with prefix. 0 for a null and for an empty range.
    static int Compare(const char* begin, const char* end, const char* prefix);

    // ---- ranges ----
    // The results point into the given text. `end` is exclusive, `last` inclusive; where nothing
    // else is said a null end or last means begin + strlen(begin), and a null begin gives null.

    /// First occurrence of pattern in the first textLen bytes (0: up to the NUL), or null. A null
    /// or empty pattern or text gives null.
    static const char* Find(const char* pattern, const char* text, std::size_t textLen);
    /// Last occurrence, the same otherwise.
    static const char* ReverseFind(const char* pattern, const char* text, std::size_t textLen);
    /// First c, or null.
    static const char* Find(char c, const char* begin, const char* last);
    /// First byte that is in set; end when there is none. A null or empty set gives null.
    static const char* FindL(const char* begin, const char* end, const char* set);
    /// Skips spaces (0x20 only).
    static const char* TrimL(const char* s);
    /// First byte other than c; last + 1 when there is none, begin when begin is above last. Null
    /// for a null pointer.
    static const char* TrimL(const char* begin, const char* last, char c);
    /// Last byte other than c; begin - 1 when there is none, last when begin is above last. Null
    /// for a null pointer.
    static const char* TrimR(const char* begin, const char* last, char c);
    /// First byte that is not in set; null when there is none. A null or empty set gives begin.
    static const char* TrimL(const char* begin, const char* end, const char* set);
    /// The end without the bytes of set before it, never below begin.
    static const char* TrimR(const char* begin, const char* end, const char* set);
    /// Copies src and terminates it; with size above 0 at most size - 1 bytes of it. Returns the
    /// bytes copied, 0 for a null.
    static int Copy(char* dst, const char* src, int size);
    /// Copies src without the spaces at its ends. When nothing is left dst stays untouched.
    static int TrimCopy(char* dst, const char* src, int size);

    // ---- conversion ----

    /// Appends the Base64 text of len bytes. Returns its length, or -1; encoding nothing is -1.
    static int BASE64Encode(CKTString& out, const char* data, int len);
    /// Appends what the first len characters of text decode to; all of them for len below 1.
    /// Trailing zero bytes are kept. Returns the number of bytes, or -1.
    static int BASE64Decode(CKTString& out, const char* text, int len);
    /// Replaces out by s, converted from the system's ANSI code page to UTF-8. On POSIX that is
    /// UTF-8 already; there, too, an invalid byte becomes U+FFFD. Returns the bytes stored, 0 for
    /// null s, -1 on failure.
    static int Multi2UTF8(CKTString& out, const char* s);

private:
    bool Reserve(std::size_t n, const char** source);
    bool Grow(std::size_t n, const char** source);
    int AppendBytes(const char* data, std::size_t count);
    bool Assign(const char* data, std::size_t count);

    char* m_buffer;
    unsigned int m_capacity;
    unsigned int m_length;  // with a buffer: m_length + 1 <= m_capacity
    unsigned short m_growShift;
    unsigned short m_maxCapacity;  // 0: no limit
};

#endif
