// Decoded pictures in counted packets, and what belongs to one instant of a channel.
#ifndef KTBASE_KTFRAME_H
#define KTBASE_KTFRAME_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTObject.h"

class CPacket;

/// Pixel formats of pictures. Callers keep the numbers: they never change.
enum KTPixelFormat : unsigned int {
    KTPIXEL_NONE = 0,
    KTPIXEL_RGB24 = 2,  ///< one plane, 3 bytes per pixel
    KTPIXEL_RGB32 = 3,  ///< one plane, 4 bytes per pixel
    KTPIXEL_UYVY = 4,   ///< one plane, 2 bytes per pixel
    KTPIXEL_YV12 = 5,  ///< Y, then V and U of half the width and half the height, both rounded down
};

/// A picture as plain values, for code that does not know CKTPacketPIC. Owns nothing.
/// Line n of plane i is at plane[i] + n * stride[i]; a stride below 0 runs towards lower addresses.
struct tag_KTFRAME {
    unsigned int format;      // KTPixelFormat
    unsigned char* plane[3];  // line 0 of each; null for none
    int stride[3];            // bytes
    unsigned int width, height;
};

/// Reference-counted picture in the memory of one packet. Made by Acquire and destroyed by its last
/// Release; AddRef and Release may be called from any thread. All else belongs to whoever holds
/// the picture: holders on several threads agree among themselves.
///
/// Lines begin on multiples of 1 << align bytes, counted from the packet's data.
class KTBASE_API CKTPacketPIC : public IKTBaseOBJ {
public:
    CKTPacketPIC(const CKTPacketPIC&) = delete;
    CKTPacketPIC& operator=(const CKTPacketPIC&) = delete;

    /// An empty picture with one reference; null when memory is out.
    static CKTPacketPIC* Acquire(unsigned short align);
    /// A picture with one reference, set up by Init; null when that fails.
    static CKTPacketPIC* Acquire(unsigned int width, unsigned int height, unsigned short format,
                                 unsigned int* stride, unsigned short align);
    int AddRef();  ///< Returns the new count.
    /// Returns the new count; at 0 and below the picture is gone, and 0 is returned.
    int Release();

    /// Sets the picture up anew, its bytes not cleared; keeps it when width, height, format and
    /// align are what they are already, whatever the stride. stride: bytes in a line of plane 0 of
    /// YV12, half of which are in its chroma lines; null for the width; other formats ignore it.
    /// A picture without width or height has its fields but no memory and no lines.
    /// Returns 0; or with an empty picture KT_UNSUPPORTED (-10) for another format and for align
    /// above 31, KT_NO_MEMORY (-6) for lines of 2 GB, pictures of 4 GB, or when memory is out.
    int Init(unsigned int width, unsigned int height, unsigned short format, unsigned int* stride,
             unsigned short align);
    void Reset();  ///< Releases the memory and clears all but align.

    /// Line 0 is the top one. null beyond the last line and the last plane; also for the formats of
    /// one plane, which is addressed by GetPlane.
    unsigned char* GetLine(unsigned int plane, unsigned int line) const;
    /// Copies count lines, cut at the end, of GetBytes(plane) bytes each; srcPitch bytes lie
    /// between the beginnings of source lines. Returns 0, or -4 when src is null or GetLine is.
    int SetLine(unsigned int plane, unsigned int line, const unsigned char* src, int srcPitch,
                unsigned int count);

    unsigned short GetFormat() const { return m_format; }
    unsigned int GetWidth() const { return m_width; }
    unsigned int GetHeight() const { return m_height; }
    CPacket* GetPacket() const { return m_packet; }  ///< lent; null without memory
    /// Each gives 0 or null for a plane above 2.
    /// The first byte of a plane. Mind that the formats of one plane have memory for GetBytes(0)
    /// lines, whatever the height: programs count on a packet of that size.
    unsigned char* GetPlane(unsigned int plane) const;
    unsigned int GetLines(unsigned int plane) const;  ///< always 0 for the formats of one plane
    unsigned int GetBytes(unsigned int plane) const;  ///< in a line, without what fills it up
    int GetStride(unsigned int plane) const;          ///< bytes between the beginnings of lines

protected:
    explicit CKTPacketPIC(unsigned short align);
    ~CKTPacketPIC() override;

    CKTMutex m_lock;
    int m_ref;  // guarded by m_lock
    unsigned short m_align;
    unsigned short m_format;
    unsigned int m_width;
    unsigned int m_height;
    unsigned int m_lines[3];
    unsigned int m_bytes[3];
    int m_stride[3];            // below 1: line 0 is the last in memory
    unsigned char* m_plane[3];  // first byte in memory
    CPacket* m_packet;          // one reference

private:
    unsigned long long Aligned(unsigned long long bytes) const;
    int SetUp(unsigned short format, unsigned int lineBytes);
    int SetUpPacked(unsigned int pixelBytes);
    int SetUpYV12(unsigned int lineBytes);
    bool TakePacket(unsigned long long size);
};

/// What belongs to one instant of a channel: the coded video, the smart data with it and the
/// decoded picture, each with one reference or null. Not locked.
class KTBASE_API CKTFrame : public IKTBaseOBJ {
public:
    CKTFrame();
    CKTFrame(const CKTFrame&) = delete;
    CKTFrame& operator=(const CKTFrame&) = delete;
    ~CKTFrame() override;

    /// Each takes a reference of its own, and releases what it held. Null holds nothing. Returns 0.
    int SetVideo(CPacket* video);
    int SetSmart(CPacket* smart);
    int SetPicture(CKTPacketPIC* picture);
    void Clear();  ///< Releases all three.

    /// The held, lent; null for none.
    CPacket* GetVideo() const { return m_video; }
    CPacket* GetSmart() const { return m_smart; }
    CKTPacketPIC* GetPicture() const { return m_picture; }

    /// Fills out with the picture, which stays the frame's. Returns 0; -4 for a null; -9 and all
    /// zero without a picture.
    int GetPicture(tag_KTFRAME* out) const;
    /// Holds a copy of a YV12 picture; in may point into the picture held before. Of each line of
    /// plane 0 stride[0] bytes are read, of the others half as many, but not more than they have.
    /// Returns 0; or with no picture held -4 for a null, for another format and for a plane without
    /// pointer or stride, and -6 when there is no memory or stride[0] is below 0.
    int SetPicture(tag_KTFRAME* in);

private:
    CPacket* m_video;
    CPacket* m_smart;
    CKTPacketPIC* m_picture;
};

#endif
