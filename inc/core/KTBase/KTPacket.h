// Media packets with a frame header, and the lists that carry them between threads.
#ifndef KTBASE_KTPACKET_H
#define KTBASE_KTPACKET_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTListT.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTTime.h"

class CKTString;
class CPacketPool;
struct KTOsFastLock;

/// Reference-counted carrier of one media frame. Made by Acquire and destroyed by its last Release;
/// AddRef, Release, GetRef and the static members may be called from any thread. All else belongs
/// to whoever holds the packet: holders on several threads agree among themselves.
///
/// The buffer begins with a header of 20 bytes, little-endian, and the payload follows:
///     0  2 bytes  0x0000
///     2  1        0x01
///     3  1        0xE0 + frame type, modulo 256
///     4  4        payload length in bytes
///     8  4        time, a ZHTIME word
///    12  2        milliseconds
///    14  1        codec and kind of frame
///    15  1        video: frames per second x 4; else channel number or object type
///    16  2        video: width; audio: sample rate
///    18  2        video: height
/// The Frame accessors work on it. Without a buffer of at least 20 bytes the setters do nothing and
/// the getters return 0 or null unless they say otherwise.
class KTBASE_API CPacket : public IKTRef {
public:
    CPacket(const CPacket&) = delete;
    CPacket& operator=(const CPacket&) = delete;

    // ---- pool and life ----

    /// Makes the process-wide pool from which packets have their buffers: pages of 1 << shift
    /// bytes. kind must be 0. Returns 0; -7 when there is a pool; -10 for another kind, or when no
    /// memory for the pool itself can be had; else what IKTMemPoolFix::Create returns.
    static int CreatePool(unsigned int pages, unsigned int shift, unsigned int kind);
    /// Destroys the pool under packets that are still out: their buffers are gone, and all that
    /// can be done with them is to release them. Returns 0.
    static int DeletePool();
    /// A packet with one reference, its buffer of at least size bytes from the pool, in whole
    /// pages; without a pool from the heap, in whole KB on a 1 KB boundary. The buffer is not
    /// cleared. Size 0: no buffer. tag is stored with the packet.
    /// Null when memory is out.
    static CPacket* Acquire(unsigned int size, unsigned int tag);

    int AddRef() override;  ///< Returns the new count.
    /// Returns the new count; at 0 the packet is gone. A count of 0 stays 0.
    int Release() override;
    int GetRef() override;

    /// Prints the number and the memory of the live packets with a buffer from the heap, and
    /// appends the same line to out unless it is null.
    static void DumpPackets(CKTString* out);
    /// Prints the header and the first 16 bytes of the payload.
    virtual void Dump();

    // ---- buffer and user values ----

    unsigned char* GetData() const { return m_data; }  ///< null without buffer
    unsigned int GetSize() const { return m_size; }    ///< bytes in the buffer
    /// Bytes used, as the user counts them; not the header's length.
    unsigned int GetLength() const { return m_length; }
    void SetLength(unsigned int length) { m_length = length; }
    /// Four words of the user's; an index above 3 is ignored and reads as 0.
    unsigned int GetUserData(unsigned int index) const;
    void SetUserData(unsigned int index, unsigned int value);
    unsigned int GetUserData() const { return m_user[0]; }
    void SetUserData(unsigned int value) { m_user[0] = value; }
    unsigned long long GetMagic() const { return m_magic; }
    void SetMagic(unsigned long long magic) { m_magic = magic; }
    /// The four bytes of user word 0, lowest first: record type, event, event source 0 and 1.
    unsigned char FrameGetRecType() const;
    void FrameSetRecType(unsigned char type);
    unsigned char FrameGetEvent() const;
    void FrameSetEvent(unsigned char event);
    unsigned char FrameGetEventSource(int n) const;  ///< Any n but 0 is source 1.
    void FrameSetEventSource(int n, unsigned char source);

    // ---- frame header ----

    void FrameInit();                     ///< Zeroes the header.
    unsigned char* FrameGetData() const;  ///< The payload.
    unsigned int FrameGetSize() const;    ///< Payload length + 20.
    unsigned int FrameGetLength() const;  ///< Payload length; not checked against the buffer.
    void FrameSetLength(unsigned int length);
    unsigned char FrameGetType() const;     ///< 255 without a buffer.
    void FrameSetType(unsigned char type);  ///< Also writes the start bytes.
    unsigned char FrameGetCodec() const;
    void FrameSetCodec(unsigned char codec);
    double FrameGetFPS() const;
    void FrameSetFPS(double fps);  ///< 0 to 63 in quarters, rounded down.
    unsigned short FrameGetWidth() const;
    void FrameSetWidth(unsigned short width);
    unsigned short FrameGetHeight() const;
    void FrameSetHeight(unsigned short height);
    unsigned short FrameGetFreq() const;  ///< Shares the width's field.
    void FrameSetFreq(unsigned short freq);
    unsigned char FrameGetChnNum() const;  ///< Shares the rate's field.
    void FrameSetChannum(unsigned char channel);
    unsigned char FrameGetObjType() const;  ///< Shares the rate's field.
    void FrameSetObjType(unsigned char type);

    /// Where the header keeps the time; not aligned when the pool's pages are below 4 bytes.
    ZHTIME* FrameGetTime() const;
    void FrameGetTime(ZHTIME* time, unsigned short* ms) const;  ///< Either may be null.
    void FrameGetTime(CKTTime* time) const;                     ///< Milliseconds modulo 1000.
    unsigned short FrameGetMS() const;
    void FrameSetTime(ZHTIME* time, unsigned short ms);  ///< Null changes nothing.
    void FrameSetTime(CKTTime& time);
    /// UTC fields of time; of now when it is null.
    void FrameSetTime(timeval* time);
    /// The header's time, taken as local time without daylight saving, in milliseconds since 1970.
    unsigned long long FrameGetTimeStamp() const;

    // ---- kind of frame; false without a buffer ----

    bool FrameIsVideo() const;
    bool FrameIsAudio() const;
    bool FrameIsPicture() const;
    bool FrameIsSmart() const;
    bool FrameIsKey() const;
    bool FrameIsVI() const;
    bool FrameHasVI() const;
    bool FrameIsH264() const;  ///< By the codec alone, like the next.
    bool FrameIsH265() const;
    bool FrameIsCurrC() const;
    bool FrameIsPOS() const;
    unsigned int FrameGetPBNum() const;  ///< 0 for a codec without flags.

private:
    friend class KTPacketSet;

    explicit CPacket(unsigned int tag);
    ~CPacket() override;

    static void Release(CPacket* packet);
    bool TakeBuffer(unsigned int size);
    bool TakeHeapBuffer(unsigned int size);
    void GiveBuffer();
    unsigned char* Header() const;
    bool HasCodecFlags() const;

    static CPacketPool* s_pool;  // null when there is none; guarded by s_poolmutex
    // Pool and heap buffers as they come and go.
    static KTOsFastLock& s_poolmutex;
    // Every packet's count. Never held together with the other.
    static KTOsFastLock& s_refmutex;

    unsigned char* m_data;
    unsigned int m_size;
    unsigned int m_length;
    unsigned int m_user[4];
    unsigned long long m_magic;
    unsigned int m_tag;
    unsigned long long m_handle;  // of the pool's buffer, or the address of the heap block
    unsigned long long m_origin;  // number of the pool it counts in, 0 for none
    CPacket* m_less;              // in the live set: packets at lower addresses
    CPacket* m_more;              // and at higher ones
};

/// Queue of packets that knows how many bytes and how many frames of interest it holds, so that a
/// producer can tell that a consumer has fallen behind. Holds one reference to each packet.
/// Not locked: the owner serialises. Only the calls of this class keep the totals, not those of the
/// list below it.
class KTBASE_API CKTPacketList : public CKTListT<CPacket*> {
public:
    /// maxVideo: counted frames at which the list is full, 0 for 32. maxData: bytes, headers
    /// included, at which it is full, 0 for no limit.
    CKTPacketList(unsigned int maxVideo, unsigned int maxData);
    ~CKTPacketList() override;  ///< Releases the packets.

    void SetMaxVideoFrameNum(unsigned int maxVideo);  ///< 0: no limit
    void SetMaxDataSize(unsigned int maxData);        ///< 0: no limit
    unsigned int GetSize() const;                     ///< bytes, headers included
    unsigned int GetVideoFrameNum() const;            ///< counted frames
    /// 1 when a limit is reached, else 0. PutPacket takes packets all the same.
    int IsFull() const;

    /// Takes over the caller's reference; to the tail, or to the head when tail is 0. Returns 0, or
    /// with the reference still the caller's -4 for a null packet, one without a buffer and one
    /// whose header time is 0, and -6 when memory is out.
    virtual int PutPacket(CPacket* packet, int tail);
    /// Hands out the packet at the tail, or at the head when tail is 0, with its reference. Null
    /// when the list is empty.
    virtual CPacket* GetPacket(int tail);

    void Clear();  ///< Releases every packet.
    /// Moves all packets to other's tail in their order; those that it refuses are released.
    /// Returns the number moved; 0 onto itself; -1 when other is null.
    int MoveTo(CKTPacketList* other);

protected:
    void OnDataFree(CPacket*& packet) override;

private:
    /// Frames of interest: video, pictures, smart frames and codec 11.
    virtual bool Counts(const CPacket& packet) const;
    void Enter(const CPacket& packet);
    void Leave(const CPacket& packet);

    unsigned int m_dataSize;
    unsigned int m_videoNum;
    unsigned int m_maxVideo;
    unsigned int m_maxData;
};

/// A packet list that counts video and pictures only.
class KTBASE_API CKTPacketListEx : public CKTPacketList {
public:
    CKTPacketListEx(unsigned int maxVideo, unsigned int maxData);
    ~CKTPacketListEx() override;

private:
    bool Counts(const CPacket& packet) const override;
};

#endif
