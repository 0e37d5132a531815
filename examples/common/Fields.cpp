#include "Fields.h"

Fields::Fields(const unsigned char* unit, unsigned int length, unsigned int begin)
    : m_unit(unit), m_length(length), m_at(begin) {}

unsigned int Fields::U(unsigned int bits) {
    unsigned int value = 0;
    for (unsigned int i = 0; i < bits; ++i)
        value = value << 1 | Bit();
    return value;
}

unsigned int Fields::UE() {
    unsigned int zeros = 0;
    while (m_ok && Bit() == 0)
        ++zeros;
    if (zeros > 31)
        m_ok = false;
    return m_ok ? (1u << zeros) - 1 + U(zeros) : 0;
}

int Fields::SE() {
    const unsigned int code = UE();
    const long long half = (code + 1LL) / 2;
    return static_cast<int>(code % 2 != 0 ? half : -half);
}

unsigned int Fields::Bit() {
    if (m_left == 0) {
        m_zeros = m_unit[m_at] == 0 ? m_zeros + 1 : 0;
        ++m_at;
        if (m_zeros >= 2 && m_at < m_length && m_unit[m_at] == 3) {
            m_zeros = 0;
            ++m_at;
        }
        m_left = 8;
    }
    if (!m_ok || m_at >= m_length) {
        m_ok = false;
        m_left = 8;
        return 0;
    }
    --m_left;
    return m_unit[m_at] >> m_left & 1;
}

namespace {

bool HasChroma(unsigned int profileIdc) {
    switch (profileIdc) {
        case 44:
        case 83:
        case 86:
        case 100:
        case 110:
        case 118:
        case 122:
        case 128:
        case 134:
        case 135:
        case 138:
        case 139:
        case 244:
            return true;
        default:
            return false;
    }
}

void SkipScalingList(Fields& fields, unsigned int entries) {
    int last = 8;
    int next = 8;
    for (unsigned int i = 0; i < entries && next != 0 && fields.Ok(); ++i) {
        next = (last + fields.SE() % 256 + 256) % 256;  // delta_scale
        last = next != 0 ? next : last;
    }
}

void ReadChroma(Fields& fields, H264Sps& sps) {
    const unsigned int chromaFormat = fields.UE();  // chroma_format_idc
    if (chromaFormat == 3)
        sps.separatePlanes = fields.U(1) != 0;  // separate_colour_plane_flag
    fields.UE();                                // bit_depth_luma_minus8
    fields.UE();                                // bit_depth_chroma_minus8
    fields.U(1);                                // qpprime_y_zero_transform_bypass_flag
    if (fields.U(1) == 0)                       // seq_scaling_matrix_present_flag
        return;
    for (unsigned int i = 0; i < (chromaFormat == 3 ? 12u : 8u); ++i)
        if (fields.U(1) != 0)  // seq_scaling_list_present_flag
            SkipScalingList(fields, i < 6 ? 16 : 64);
}

void SkipPictureOrder(Fields& fields) {
    const unsigned int type = fields.UE();  // pic_order_cnt_type
    if (type == 0)
        fields.UE();  // log2_max_pic_order_cnt_lsb_minus4
    if (type != 1)
        return;
    fields.U(1);                             // delta_pic_order_always_zero_flag
    fields.SE();                             // offset_for_non_ref_pic
    fields.SE();                             // offset_for_top_to_bottom_field
    const unsigned int cycle = fields.UE();  // num_ref_frames_in_pic_order_cnt_cycle
    for (unsigned int i = 0; i < cycle && fields.Ok(); ++i)
        fields.SE();  // offset_for_ref_frame
}

}  // namespace

H264Sps ReadH264Sps(const unsigned char* unit, unsigned int length) {
    H264Sps sps;
    Fields fields(unit, length, 1);
    sps.profileIdc = fields.U(8);
    sps.constraints = fields.U(8);
    sps.levelIdc = fields.U(8);
    sps.id = fields.UE();
    if (HasChroma(sps.profileIdc))
        ReadChroma(fields, sps);
    const unsigned int frameNumBitsMinus4 = fields.UE();  // log2_max_frame_num_minus4
    SkipPictureOrder(fields);
    sps.refFrames = fields.UE();          // max_num_ref_frames
    fields.U(1);                          // gaps_in_frame_num_value_allowed_flag
    fields.UE();                          // pic_width_in_mbs_minus1
    fields.UE();                          // pic_height_in_map_units_minus1
    sps.frameMbsOnly = fields.U(1) != 0;  // frame_mbs_only_flag
    sps.ok = fields.Ok() && frameNumBitsMinus4 <= 12;
    sps.frameNumBits = sps.ok ? frameNumBitsMinus4 + 4 : 0;
    return sps;
}

H264Slice ReadH264Slice(const unsigned char* unit, unsigned int length, const H264Sps* sps) {
    H264Slice slice;
    Fields fields(unit, length, 1);
    slice.firstMb = fields.UE();  // first_mb_in_slice
    fields.UE();                  // slice_type
    slice.ppsId = fields.UE();    // pic_parameter_set_id
    if (sps == nullptr)
        return slice;
    if (sps->separatePlanes)
        fields.U(2);                                         // colour_plane_id
    slice.frameNum = fields.U(sps->frameNumBits);            // frame_num
    slice.isField = !sps->frameMbsOnly && fields.U(1) != 0;  // field_pic_flag
    slice.isBottom = slice.isField && fields.U(1) != 0;      // bottom_field_flag
    return slice;
}

PpsIds ReadPpsIds(bool h265, const unsigned char* unit, unsigned int length) {
    PpsIds ids;
    Fields fields(unit, length, h265 ? 2 : 1);
    ids.pps = fields.UE();
    ids.sps = fields.UE();
    ids.ok = fields.Ok();
    return ids;
}

H265Profiling ReadH265Profiling(const unsigned char* unit, unsigned int length) {
    H265Profiling profiling;
    Fields fields(unit, length, 2);
    fields.U(4);                                 // sps_video_parameter_set_id
    const unsigned int subLayers = fields.U(3);  // sps_max_sub_layers_minus1
    fields.U(1);                                 // sps_temporal_id_nesting_flag
    fields.U(2);                                 // general_profile_space
    profiling.highTier = fields.U(1) != 0;       // general_tier_flag
    profiling.profileIdc = fields.U(5);          // general_profile_idc
    fields.U(32);                                // general_profile_compatibility_flag
    fields.U(32);                                // general_progressive_source_flag and on,
    fields.U(16);                                // 48 bits
    profiling.levelIdc = fields.U(8);            // general_level_idc
    unsigned int present[8] = {};
    for (unsigned int i = 0; subLayers > 0 && i < 8; ++i)
        present[i] = fields.U(2);  // sub_layer_profile_present_flag, sub_layer_level_present_flag
    for (unsigned int i = 0; i < subLayers; ++i) {
        for (unsigned int byte = 0; byte < 11 && (present[i] & 2) != 0; ++byte)
            fields.U(8);
        if ((present[i] & 1) != 0)
            fields.U(8);
    }
    profiling.id = fields.UE();
    profiling.ok = fields.Ok();
    return profiling;
}
