// Media heads: what a decoder must know about a stream; and the description of a recorded clip.
#ifndef KTBASE_KTMEDIA_H
#define KTBASE_KTMEDIA_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"
#include "KTBase/KTTime.h"

class CPacket;

/// What must be known about one elementary stream before its first frame. Heads are built from key
/// frames and compared with later ones to notice that the stream's format has changed.
/// Made with new or CreateHead, destroyed by Release or delete; a pointer passed to a call stays the
/// caller's, and null pointers are refused. A head belongs to one thread at a time.
class KTBASE_API CKTMediaHead : public IKTBaseOBJ {
public:
    CKTMediaHead() = default;
    CKTMediaHead(const CKTMediaHead&) = delete;
    CKTMediaHead& operator=(const CKTMediaHead&) = delete;
    ~CKTMediaHead() override;

    virtual int Release();  ///< Destroys the head. Returns 0.
    virtual bool IsVideo() const;
    virtual bool IsAudio() const;
    virtual bool IsH264() const;
    virtual bool IsH265() const;
    /// Whether the packet's frame belongs to this head's stream. False in this class.
    virtual bool Check(CPacket* packet) const;
    /// Whether both heads stand for the same format. False in this class.
    virtual bool Check(CKTMediaHead* other) const;

    unsigned short GetCodec() const { return m_codec; }  ///< As the frame header has it.
    bool SetCodec(unsigned short codec);                 ///< Returns true.

protected:
    unsigned short m_codec = 0;
};

/// Head of an audio stream.
class KTBASE_API CKTAudioHead : public CKTMediaHead {
public:
    explicit CKTAudioHead(unsigned short codec);  // 1 channel, 8000 Hz
    ~CKTAudioHead() override;

    /// Head of the packet's audio frame; the caller's. Null for any other frame.
    static CKTAudioHead* CreateHead(CPacket* packet);
    /// Head with these values; the caller's. Null unless codec is 4 or 5.
    static CKTAudioHead* CreateHead(unsigned short codec, unsigned short channels,
                                    unsigned int freq);

    bool IsAudio() const override;
    /// Compares the codec alone: a frame header has no channel count.
    bool Check(CPacket* packet) const override;
    /// Compares codec, sample rate and channels.
    bool Check(CKTMediaHead* other) const override;
    /// Copy, the caller's; null when memory is out.
    virtual CKTMediaHead* Clone() const;
    /// Takes codec and sample rate from an audio frame; 1 channel. Returns 0, -4 for null, -10 for
    /// any other frame: nothing has changed then.
    virtual int Setup(CPacket* packet);

    unsigned short GetChannum() const { return m_channels; }
    void SetChannum(unsigned short channels) { m_channels = channels; }
    unsigned int GetFreq() const { return m_freq; }  ///< sample rate in Hz
    void SetFreq(unsigned int freq) { m_freq = freq; }

private:
    unsigned short m_channels = 1;
    unsigned int m_freq = 8000;
};

/// Head of a video stream: picture size and parameter sets. Sets are stored as 00 00 00 01, the
/// unit's header as it came, its body. Sizes are those of the four-byte walk (KTH26X.h), cut to 16
/// bits.
class KTBASE_API CKTVideoHead : public CKTMediaHead {
public:
    /// Parameter sets to leave out of GetLength and GetData.
    enum : unsigned int { kNoSPS = 0x100, kNoPPS = 0x200, kNoVPS = 0x400 };

    CKTVideoHead() = default;
    ~CKTVideoHead() override;

    /// Head of the packet's H.264 or H.265 key frame; the caller's. Null for any other frame and
    /// when memory is out.
    static CKTVideoHead* CreateHead(CPacket* packet);

    bool IsVideo() const override;
    /// Copy, the caller's; null when memory is out.
    virtual CKTMediaHead* Clone() const = 0;
    /// Takes codec and parameter sets from a key frame of the head's class. Its units must begin
    /// with four-byte start codes. A set that cannot be decoded is passed over, as are missing ones:
    /// IsValid tells. Returns 0, -4 for null, -10 for any other frame, -6 when memory is out: the
    /// sets before it are stored then.
    virtual int Setup(CPacket* packet) = 0;
    /// Stores one parameter set. header: the unit's header, its first byte lowest; data: the unit
    /// behind it, which may lie in this head's own sets. A set with the stored body changes nothing.
    /// Returns 0, -4 for null or empty data, -1 for another type of unit, -15 for a sequence
    /// parameter set that cannot be decoded, -6 when memory is out: nothing has changed then.
    virtual int SetNAL(unsigned int header, const unsigned char* data, unsigned int len) = 0;
    /// Copies SPS, PPS and VPS, in this order, to out, which must hold GetLength(flags) bytes.
    /// flags: kNoSPS, kNoPPS, kNoVPS. Returns the bytes copied, -4 when out is null.
    virtual int GetData(unsigned char* out, unsigned int flags) const = 0;
    virtual unsigned int GetLength(unsigned int flags) const = 0;
    /// Whether the size and all parameter sets are known.
    virtual bool IsValid() const = 0;

    unsigned short GetWidth() const { return m_width; }
    unsigned short GetHeight() const { return m_height; }

protected:
    /// The packet's key frame is of this codec and has this head's size in its header.
    bool IsSameFrame(CPacket* packet, unsigned short codec) const;
    bool IsSameFormat(const CKTVideoHead& other) const;
    void CopyFormat(const CKTVideoHead& other);

    unsigned short m_width = 0;
    unsigned short m_height = 0;
    unsigned int m_profile = 0;  // H.264: as H264DecodeSPS gives it; H.265: 0
};

/// Head of an H.264 stream.
class KTBASE_API CKTH264Head : public CKTVideoHead {
public:
    CKTH264Head();
    ~CKTH264Head() override;

    /// H26XFindNextNal
    static int FindNextNal(const unsigned char* buf, unsigned int len);

    bool IsH264() const override;
    /// A key frame with this codec and size.
    bool Check(CPacket* packet) const override;
    /// An H.264 head of the same size, profile and level.
    bool Check(CKTMediaHead* other) const override;
    CKTMediaHead* Clone() const override;
    int Setup(CPacket* packet) override;
    int SetNAL(unsigned int header, const unsigned char* data, unsigned int len) override;
    int GetData(unsigned char* out, unsigned int flags) const override;
    unsigned int GetLength(unsigned int flags) const override;
    bool IsValid() const override;
    virtual unsigned short GetCodec() const;  ///< 1 or 16-31

    const CKTString& GetSPS() const { return m_sps; }
    const CKTString& GetPPS() const { return m_pps; }
    /// Copy into out. Return 0, or -6 when out cannot grow; it is then empty.
    int GetSPS(CKTString& out) const;
    int GetPPS(CKTString& out) const;

private:
    int SetSPS(unsigned int header, const unsigned char* data, unsigned int len);

    CKTString m_sps;
    CKTString m_pps;
};

/// Head of an H.265 stream.
class KTBASE_API CKTH265Head : public CKTVideoHead {
public:
    CKTH265Head();
    ~CKTH265Head() override;

    /// H26XFindNextNal
    static int FindNextNal(const unsigned char* buf, unsigned int len);

    bool IsH265() const override;
    /// A key frame with this codec and size.
    bool Check(CPacket* packet) const override;
    /// A video head of codec 2 and the same size; heads of codec 32-47 match none.
    bool Check(CKTMediaHead* other) const override;
    CKTMediaHead* Clone() const override;
    int Setup(CPacket* packet) override;
    int SetNAL(unsigned int header, const unsigned char* data, unsigned int len) override;
    int GetData(unsigned char* out, unsigned int flags) const override;
    unsigned int GetLength(unsigned int flags) const override;
    bool IsValid() const override;
    virtual unsigned short GetCodec() const;  ///< 2 or 32-47

    const CKTString& GetSPS() const { return m_sps; }
    const CKTString& GetPPS() const { return m_pps; }
    const CKTString& GetVPS() const { return m_vps; }
    /// Copy into out. Return 0, or -6 when out cannot grow; it is then empty.
    int GetSPS(CKTString& out) const;
    int GetPPS(CKTString& out) const;
    int GetVPS(CKTString& out) const;

private:
    int SetSPS(unsigned int header, const unsigned char* data, unsigned int len);

    CKTString m_sps;
    CKTString m_pps;
    CKTString m_vps;
};

/// Description of a recorded clip: a video and an audio head, start time and duration. Owns its
/// heads. Made by Create, destroyed by Release. A description belongs to one thread at a time.
class KTBASE_API CKTMediaDesc : public IKTBaseOBJ {
public:
    CKTMediaDesc(const CKTMediaDesc&) = delete;
    CKTMediaDesc& operator=(const CKTMediaDesc&) = delete;

    /// Without heads, starting now (UTC), duration 0; the caller's. kind is kept for the caller.
    /// Null when memory is out.
    static CKTMediaDesc* Create(unsigned int kind);
    int Release();  ///< Destroys the description and its heads. Returns 0.
    /// Copy with copies of the heads, the caller's; null when memory is out.
    CKTMediaDesc* Clone() const;
    void Reset();  ///< Releases both heads.

    /// Takes what the packet's frame tells about its stream. A key frame or an audio frame that
    /// fails the held head's Check replaces it, by none when it leads to none. Returns 0 whatever
    /// the frame, -4 for null.
    int Setup(CPacket* packet);
    /// Replaces the audio head; by none unless codec is 4 or 5. Returns 0.
    int SetupAudio(unsigned short codec, unsigned short channels, unsigned int freq);
    /// Replaces the head by a copy; null takes it away. The head held already changes nothing.
    /// Returns 0, or -6 when memory is out: the old head stays.
    int SetVideoHead(CKTVideoHead* head);
    int SetAudioHead(CKTAudioHead* head);
    CKTVideoHead* GetVideoHead() const { return m_video; }  ///< Stays the description's; or null.
    CKTAudioHead* GetAudioHead() const { return m_audio; }  ///< Stays the description's; or null.

    int SetTimeS(CKTTime* start);  ///< Returns 0, -4 for null.
    /// Sets the duration; an end before the start gives 0. Returns 0, -4 for null, -7 when the
    /// start is the null time.
    int SetTimeE(CKTTime* end);
    void SetTimeRange(unsigned long long durationMs) { m_durationMs = durationMs; }
    const CKTTime& GetTimeS() const { return m_start; }
    unsigned long long GetTimeRange() const { return m_durationMs; }  ///< duration in milliseconds
    unsigned long long GetSeconds() const;                            ///< duration, rounded up
    unsigned int GetKind() const { return m_kind; }

private:
    explicit CKTMediaDesc(unsigned int kind);
    ~CKTMediaDesc() override;

    unsigned int m_kind;
    CKTVideoHead* m_video = nullptr;
    CKTAudioHead* m_audio = nullptr;
    CKTTime m_start;
    unsigned long long m_durationMs = 0;
};

#endif
