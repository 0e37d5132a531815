// H.264 sequence parameter sets: ITU-T H.264, 7.3.2.1.1.
#include "KTBase/KTH26X.h"
#include "KTH26XReader.h"

namespace {

/// What a set holds up to frame cropping. Left at its inferred value where it is absent.
struct Sps {
    unsigned int profileIdc = 0;
    unsigned int constraints = 0;
    unsigned int levelIdc = 0;
    unsigned int id = 0;
    unsigned int chromaFormat = 1;
    unsigned int bitDepthLumaMinus8 = 0;
    unsigned int bitDepthChromaMinus8 = 0;
    unsigned int log2FrameNumMinus4 = 0;
    unsigned int orderCountType = 0;
    unsigned int log2OrderCountMinus4 = 0;
    unsigned int orderCycle = 0;
    unsigned int refFrames = 0;
    unsigned int widthMbsMinus1 = 0;
    unsigned int heightUnitsMinus1 = 0;
    bool frameMbsOnly = false;
    unsigned int cropLeft = 0;
    unsigned int cropRight = 0;
    unsigned int cropTop = 0;
    unsigned int cropBottom = 0;
};

/// Profiles that the four-byte walk reads chroma fields for. The standard has more (below), but
/// sizes stored from their sets were read without these fields and must compare equal.
bool WalkHasChroma(unsigned int profileIdc) {
    switch (profileIdc) {
        case 44:
        case 83:
        case 86:
        case 100:
        case 110:
        case 122:
        case 244:
            return true;
        default:
            return false;
    }
}

bool StandardHasChroma(unsigned int profileIdc) {
    switch (profileIdc) {
        case 118:
        case 128:
        case 134:
        case 135:
        case 138:
        case 139:
            return true;
        default:
            return WalkHasChroma(profileIdc);
    }
}

bool ReadProfile(KTH26XReader& bits, Sps& sps) {
    return bits.U(8, sps.profileIdc) &&   // profile_idc u(8)
           bits.U(8, sps.constraints) &&  // constraint_set0..5_flag u(1), reserved_zero_2bits u(2)
           bits.U(8, sps.levelIdc);       // level_idc u(8)
}

/// scaling_list(), 7.3.2.1.1.1: read past.
bool SkipScalingList(KTH26XReader& bits, unsigned int entries) {
    long long lastScale = 8;
    long long nextScale = 8;
    for (unsigned int i = 0; i < entries && nextScale != 0; ++i) {
        int delta = 0;
        if (!bits.SE(delta))  // delta_scale se(v)
            return false;
        nextScale = (lastScale + delta) & 0xFF;
        if (nextScale != 0)
            lastScale = nextScale;
    }
    return true;
}

bool SkipScalingMatrix(KTH26XReader& bits, unsigned int chromaFormat) {
    const unsigned int lists = chromaFormat == 3 ? 12 : 8;
    for (unsigned int i = 0; i < lists; ++i) {
        bool present = false;
        if (!bits.Flag(present))  // seq_scaling_list_present_flag[i] u(1)
            return false;
        if (present && !SkipScalingList(bits, i < 6 ? 16 : 64))
            return false;
    }
    return true;
}

bool ReadChroma(KTH26XReader& bits, Sps& sps) {
    if (!bits.UE(sps.chromaFormat))  // chroma_format_idc ue(v)
        return false;
    bool planes = false;
    if (sps.chromaFormat == 3 && !bits.Flag(planes))  // separate_colour_plane_flag u(1)
        return false;
    bool bypass = false;
    bool matrix = false;
    if (!bits.UE(sps.bitDepthLumaMinus8) ||    // bit_depth_luma_minus8 ue(v)
        !bits.UE(sps.bitDepthChromaMinus8) ||  // bit_depth_chroma_minus8 ue(v)
        !bits.Flag(bypass) ||                  // qpprime_y_zero_transform_bypass_flag u(1)
        !bits.Flag(matrix))                    // seq_scaling_matrix_present_flag u(1)
        return false;
    return !matrix || SkipScalingMatrix(bits, sps.chromaFormat);
}

bool ReadOrderCycle(KTH26XReader& bits, Sps& sps) {
    bool alwaysZero = false;
    int offset = 0;
    if (!bits.Flag(alwaysZero) ||  // delta_pic_order_always_zero_flag u(1)
        !bits.SE(offset) ||        // offset_for_non_ref_pic se(v)
        !bits.SE(offset) ||        // offset_for_top_to_bottom_field se(v)
        !bits.UE(sps.orderCycle))  // num_ref_frames_in_pic_order_cnt_cycle ue(v)
        return false;
    // The count may claim more than the data holds: the first read past its end ends the loop.
    for (unsigned int i = 0; i < sps.orderCycle; ++i)
        if (!bits.SE(offset))  // offset_for_ref_frame[i] se(v)
            return false;
    return true;
}

/// From seq_parameter_set_id to gaps_in_frame_num_value_allowed_flag.
bool ReadCoding(KTH26XReader& bits, Sps& sps, bool hasChroma) {
    if (!bits.UE(sps.id))  // seq_parameter_set_id ue(v)
        return false;
    if (hasChroma && !ReadChroma(bits, sps))
        return false;
    if (!bits.UE(sps.log2FrameNumMinus4) ||  // log2_max_frame_num_minus4 ue(v)
        !bits.UE(sps.orderCountType))        // pic_order_cnt_type ue(v)
        return false;
    if (sps.orderCountType == 0 &&
        !bits.UE(sps.log2OrderCountMinus4))  // log2_max_pic_order_cnt_lsb_minus4 ue(v)
        return false;
    if (sps.orderCountType == 1 && !ReadOrderCycle(bits, sps))
        return false;
    return bits.UE(sps.refFrames);  // max_num_ref_frames ue(v)
}

bool ReadSize(KTH26XReader& bits, Sps& sps) {
    bool gaps = false;
    return bits.Flag(gaps) &&               // gaps_in_frame_num_value_allowed_flag u(1)
           bits.UE(sps.widthMbsMinus1) &&   // pic_width_in_mbs_minus1 ue(v)
           bits.UE(sps.heightUnitsMinus1);  // pic_height_in_map_units_minus1 ue(v)
}

bool ReadCropping(KTH26XReader& bits, Sps& sps) {
    bool flag = false;
    if (!bits.Flag(sps.frameMbsOnly))  // frame_mbs_only_flag u(1)
        return false;
    if (!sps.frameMbsOnly && !bits.Flag(flag))  // mb_adaptive_frame_field_flag u(1)
        return false;
    if (!bits.Flag(flag) ||  // direct_8x8_inference_flag u(1)
        !bits.Flag(flag))    // frame_cropping_flag u(1)
        return false;
    if (!flag)
        return true;
    return bits.UE(sps.cropLeft) &&   // frame_crop_left_offset ue(v)
           bits.UE(sps.cropRight) &&  // frame_crop_right_offset ue(v)
           bits.UE(sps.cropTop) &&    // frame_crop_top_offset ue(v)
           bits.UE(sps.cropBottom);   // frame_crop_bottom_offset ue(v)
}

// ---- four-byte walk ----

struct WalkOutputs {
    unsigned int* profile;
    unsigned int* refFrames;
    tag_KTSIZES* coded;
    unsigned int* width;
    unsigned int* height;
};

/// 32 bits of the length, whatever the field claims.
unsigned int LumaLength(unsigned int mbsMinus1) {
    return static_cast<unsigned int>((mbsMinus1 + 1ULL) * 16);
}

int Walk(const unsigned char* body, unsigned int len, const WalkOutputs& out) {
    Sps sps;
    KTH26XReader bits(body, 0, len, KTH26XReader::kSkipped);
    if (!ReadProfile(bits, sps))
        return 0;
    KTH26XPut(out.profile, sps.profileIdc | sps.constraints << 8 | sps.levelIdc << 16);
    if (!ReadCoding(bits, sps, WalkHasChroma(sps.profileIdc)))
        return 0;
    KTH26XPut(out.refFrames, sps.refFrames);
    if (!ReadSize(bits, sps))
        return 0;
    const tag_KTSIZES coded = {LumaLength(sps.widthMbsMinus1), LumaLength(sps.heightUnitsMinus1)};
    KTH26XPut(out.coded, coded);
    KTH26XPut(out.width, coded.width);
    KTH26XPut(out.height, coded.height);
    if (!ReadCropping(bits, sps))
        return 0;
    // 4:2:0 units whatever the chroma format, and the height of field-coded pictures not doubled:
    // both as in the sizes that stored heads hold.
    const unsigned int unitY = sps.frameMbsOnly ? 2 : 4;
    KTH26XPut(out.width, coded.width - 2 * (sps.cropLeft + sps.cropRight));
    KTH26XPut(out.height, coded.height - unitY * (sps.cropTop + sps.cropBottom));
    return 1;
}

// ---- standard sizes ----

/// Value ranges of 7.4.2.1.1.
bool IsConforming(const Sps& sps) {
    return sps.id <= 31 && sps.chromaFormat <= 3 && sps.bitDepthLumaMinus8 <= 6 &&
           sps.bitDepthChromaMinus8 <= 6 && sps.log2FrameNumMinus4 <= 12 &&
           sps.orderCountType <= 2 && sps.log2OrderCountMinus4 <= 12 && sps.orderCycle <= 255 &&
           sps.refFrames <= 16;
}

/// Coded length less its cropping, in luma samples. False when nothing is left of it, or it does
/// not fit its type.
bool Crop(unsigned long long coded, unsigned long long cropUnit, unsigned int before,
          unsigned int after, unsigned int& codedOut, unsigned int& displayOut) {
    const unsigned long long crop = cropUnit * (static_cast<unsigned long long>(before) + after);
    if (coded > 0xFFFFFFFFu || crop >= coded)
        return false;
    codedOut = static_cast<unsigned int>(coded);
    displayOut = static_cast<unsigned int>(coded - crop);
    return true;
}

}  // namespace

int H264DecodeSPS(const unsigned char* body, unsigned int len, unsigned int* width,
                  unsigned int* height, unsigned int* profile) {
    if (body == nullptr || len == 0)
        return 0;
    return Walk(body, len, {profile, nullptr, nullptr, width, height});
}

int H264DecodeResolution(const unsigned char* nal, unsigned int len, tag_KTSIZES* coded,
                         tag_KTSIZES* display, unsigned int* profile, unsigned int* refFrames) {
    if (nal == nullptr || len < 6 || coded == nullptr || display == nullptr)
        return 0;
    return Walk(nal + 5, len - 5, {profile, refFrames, coded, &display->width, &display->height});
}

int H264DecodeSize(const unsigned char* unit, unsigned int len, tag_KTSIZES* coded,
                   tag_KTSIZES* display) {
    if (unit == nullptr || len < 2)
        return 0;
    // forbidden_zero_bit f(1), nal_ref_idc u(2), nal_unit_type u(5): 7 is the set, 15 the subset
    // set of the scalable and multiview profiles, which begins with the same fields.
    const unsigned int type = unit[0] & 0x9F;
    if (type != 7 && type != 15)
        return 0;
    Sps sps;
    KTH26XReader bits(unit, 1, len, KTH26XReader::kSkipped);
    if (!ReadProfile(bits, sps) || !ReadCoding(bits, sps, StandardHasChroma(sps.profileIdc)) ||
        !ReadSize(bits, sps) || !ReadCropping(bits, sps) || !IsConforming(sps))
        return 0;

    // Table 6-1 and equations 7-18 to 7-22. In 4:4:4 it makes no difference to cropping whether
    // the colour planes are coded apart.
    const unsigned long long unitX = sps.chromaFormat == 1 || sps.chromaFormat == 2 ? 2 : 1;
    const unsigned long long unitY = sps.chromaFormat == 1 ? 2 : 1;
    const unsigned long long rows = sps.frameMbsOnly ? 1 : 2;  // map units are pairs in fields
    tag_KTSIZES whole = {};
    tag_KTSIZES shown = {};
    if (!Crop((sps.widthMbsMinus1 + 1ULL) * 16, unitX, sps.cropLeft, sps.cropRight, whole.width,
              shown.width) ||
        !Crop((sps.heightUnitsMinus1 + 1ULL) * 16 * rows, unitY * rows, sps.cropTop, sps.cropBottom,
              whole.height, shown.height))
        return 0;
    KTH26XPut(coded, whole);
    KTH26XPut(display, shown);
    return 1;
}
