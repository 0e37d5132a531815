// The fields of a unit, bit by bit, beyond those that the library decodes.
#ifndef KTEXAMPLES_FIELDS_H
#define KTEXAMPLES_FIELDS_H

/// Reads the bits of a unit and leaves out its emulation prevention bytes. A read past the end
/// gives 0, as does every later one, and Ok turns false.
class Fields {
public:
    /// unit stays the caller's; reading begins at byte `begin`.
    Fields(const unsigned char* unit, unsigned int length, unsigned int begin);

    unsigned int U(unsigned int bits);  ///< u(n), n up to 32
    unsigned int UE();                  ///< ue(v)
    int SE();                           ///< se(v)
    bool Ok() const { return m_ok; }

private:
    unsigned int Bit();

    const unsigned char* m_unit;
    unsigned int m_length;
    unsigned int m_at;         // byte that is read
    unsigned int m_left = 8;   // bits of it not read yet
    unsigned int m_zeros = 0;  // zero bytes before it
    bool m_ok = true;
};

/// What an H.264 sequence parameter set says on its use: ITU-T H.264, 7.3.2.1.1.
struct H264Sps {
    bool ok = false;  // read to the end of these fields
    unsigned int profileIdc = 0;
    unsigned int constraints = 0;  // the byte behind profile_idc
    unsigned int levelIdc = 0;
    unsigned int id = 0;
    bool separatePlanes = false;
    unsigned int frameNumBits = 0;
    unsigned int refFrames = 0;
    bool frameMbsOnly = false;
};

H264Sps ReadH264Sps(const unsigned char* unit, unsigned int length);

/// Beginning of an H.264 slice header, 7.3.3, up to where fields are told from frames.
struct H264Slice {
    unsigned int firstMb = 0;
    unsigned int ppsId = 0;
    unsigned int frameNum = 0;
    bool isField = false;
    bool isBottom = false;
};

/// sps: null when it is not known; the slice then counts as one of a frame.
H264Slice ReadH264Slice(const unsigned char* unit, unsigned int length, const H264Sps* sps);

/// pic_parameter_set_id and seq_parameter_set_id of a picture parameter set.
struct PpsIds {
    bool ok = false;
    unsigned int pps = 0;
    unsigned int sps = 0;
};

PpsIds ReadPpsIds(bool h265, const unsigned char* unit, unsigned int length);

/// general_profile_space and on of an H.265 sequence parameter set: ITU-T H.265, 7.3.3.
struct H265Profiling {
    bool ok = false;
    unsigned int profileIdc = 0;
    bool highTier = false;
    unsigned int levelIdc = 0;
    unsigned int id = 0;  // sps_seq_parameter_set_id
};

H265Profiling ReadH265Profiling(const unsigned char* unit, unsigned int length);

#endif
