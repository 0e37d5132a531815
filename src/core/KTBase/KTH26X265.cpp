// H.265 sequence and video parameter sets: ITU-T H.265, 7.3.2.1 and 7.3.2.2.
#include "KTBase/KTH26X.h"
#include "KTBase/KTObject.h"
#include "KTH26XReader.h"

namespace {

/// Longest list of sub-layers: the count is one more than a field of 3 bits.
constexpr unsigned int kMostSubLayers = 8;

/// general_profile_space u(2) to general_level_idc u(8) of profile_tier_level(), 7.3.3.
constexpr unsigned int kGeneralProfileBytes = 12;

/// Copy of a set without its emulation prevention bytes.
class Payload {
public:
    Payload(const unsigned char* data, unsigned int len) {
        // Twice the length: peaks of the memory accounting are compared between versions.
        m_bytes = ZMKMalloc(2 * static_cast<std::size_t>(len));
        if (m_bytes == nullptr)
            return;
        for (unsigned int i = 0; i < len;) {
            const bool escape =
                len - i >= 3 && data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 3;
            m_bytes[m_size++] = data[i];
            if (escape)
                m_bytes[m_size++] = 0;
            i += escape ? 3 : 1;
        }
    }
    ~Payload() { ZMKFree(m_bytes); }
    Payload(const Payload&) = delete;
    Payload& operator=(const Payload&) = delete;

    /// Null when memory was out.
    const unsigned char* Bytes() const { return m_bytes; }
    /// 0 when memory was out.
    unsigned int Size() const { return m_size; }

private:
    unsigned char* m_bytes = nullptr;
    unsigned int m_size = 0;
};

bool SkipBytes(const Payload& set, unsigned int& pos, unsigned int count) {
    if (set.Size() - pos < count)
        return false;
    pos += count;
    return true;
}

/// profile_tier_level(1, maxSubLayersMinus1), 7.3.3: moves pos past it.
bool SkipProfileTierLevel(const Payload& set, unsigned int& pos, unsigned int maxSubLayersMinus1) {
    if (!SkipBytes(set, pos, kGeneralProfileBytes))
        return false;
    if (maxSubLayersMinus1 == 0)
        return true;
    const unsigned char* const present = set.Bytes() + pos;
    if (!SkipBytes(set, pos, 2))
        return false;
    // Two flags for each sub-layer: its profile, its level.
    const unsigned int flags = static_cast<unsigned int>(present[0]) << 8 | present[1];
    for (unsigned int i = 0; i < maxSubLayersMinus1; ++i) {
        // sub_layer_profile_present_flag[i] u(1): 88 bits from sub_layer_profile_space u(2) on
        if ((flags >> (15 - 2 * i) & 1) != 0 && !SkipBytes(set, pos, 11))
            return false;
        // sub_layer_level_present_flag[i] u(1): sub_layer_level_idc u(8)
        if ((flags >> (14 - 2 * i) & 1) != 0 && !SkipBytes(set, pos, 1))
            return false;
    }
    return true;
}

/// What a sequence parameter set holds up to its conformance window.
struct Sps {
    unsigned int maxSubLayersMinus1 = 0;
    unsigned int id = 0;
    unsigned int chromaFormat = 0;
    tag_KTSIZES coded = {};
    unsigned int windowLeft = 0;
    unsigned int windowRight = 0;
    unsigned int windowTop = 0;
    unsigned int windowBottom = 0;
};

/// From the set's first byte to its profile, tier and level; pos is left behind them.
bool ReadLayers(const Payload& set, unsigned int& pos, Sps& sps) {
    // sps_video_parameter_set_id u(4), sps_max_sub_layers_minus1 u(3),
    // sps_temporal_id_nesting_flag u(1)
    pos = 0;
    if (!SkipBytes(set, pos, 1))
        return false;
    sps.maxSubLayersMinus1 = set.Bytes()[0] >> 1 & 7;
    return SkipProfileTierLevel(set, pos, sps.maxSubLayersMinus1);
}

bool ReadSize(KTH26XReader& bits, Sps& sps) {
    if (!bits.UE(sps.id) ||          // sps_seq_parameter_set_id ue(v)
        !bits.UE(sps.chromaFormat))  // chroma_format_idc ue(v)
        return false;
    bool planes = false;
    if (sps.chromaFormat == 3 && !bits.Flag(planes))  // separate_colour_plane_flag u(1)
        return false;
    return bits.UE(sps.coded.width) &&  // pic_width_in_luma_samples ue(v)
           bits.UE(sps.coded.height);   // pic_height_in_luma_samples ue(v)
}

bool ReadWindow(KTH26XReader& bits, Sps& sps) {
    bool window = false;
    if (!bits.Flag(window))  // conformance_window_flag u(1)
        return false;
    if (!window || sps.chromaFormat > 3)
        return true;
    return bits.UE(sps.windowLeft) &&   // conf_win_left_offset ue(v)
           bits.UE(sps.windowRight) &&  // conf_win_right_offset ue(v)
           bits.UE(sps.windowTop) &&    // conf_win_top_offset ue(v)
           bits.UE(sps.windowBottom);   // conf_win_bottom_offset ue(v)
}

// SubWidthC and SubHeightC, table 6-1.
unsigned int WindowUnitX(unsigned int chromaFormat) {
    return chromaFormat == 1 || chromaFormat == 2 ? 2 : 1;
}

unsigned int WindowUnitY(unsigned int chromaFormat) {
    return chromaFormat == 1 ? 2 : 1;
}

/// The sub-layer ordering of either set: values[0] to before values[count].
bool ReadDecPicBuffering(KTH26XReader& bits, unsigned int maxSubLayersMinus1,
                         unsigned int (&values)[kMostSubLayers], unsigned int& count) {
    bool every = false;
    if (!bits.Flag(every))  // (s|v)ps_sub_layer_ordering_info_present_flag u(1)
        return false;
    count = 0;
    for (unsigned int i = every ? 0 : maxSubLayersMinus1; i <= maxSubLayersMinus1; ++i) {
        unsigned int skipped = 0;
        if (!bits.UE(values[count++]) ||  // max_dec_pic_buffering_minus1[i] ue(v)
            !bits.UE(skipped) ||          // max_num_reorder_pics[i] ue(v)
            !bits.UE(skipped))            // max_latency_increase_plus1[i] ue(v)
            return false;
    }
    return true;
}

// ---- four-byte walk ----

/// Reads on behind the conformance window to the sub-layer ordering.
bool ReadReferences(KTH26XReader& bits, const Sps& sps, unsigned int& largest) {
    unsigned int skipped = 0;
    if (!bits.UE(skipped) ||  // bit_depth_luma_minus8 ue(v)
        !bits.UE(skipped) ||  // bit_depth_chroma_minus8 ue(v)
        !bits.UE(skipped))    // log2_max_pic_order_cnt_lsb_minus4 ue(v)
        return false;
    unsigned int values[kMostSubLayers];
    unsigned int count = 0;
    if (!ReadDecPicBuffering(bits, sps.maxSubLayersMinus1, values, count))
        return false;
    largest = 0;
    for (unsigned int i = 0; i < count; ++i)
        if (values[i] > largest)
            largest = values[i];
    return true;
}

/// references null: the walk ends behind the conformance window.
int Walk(const unsigned char* body, unsigned int len, tag_KTSIZES* coded, unsigned int* width,
         unsigned int* height, unsigned int* references) {
    const Payload set(body, len);
    Sps sps;
    unsigned int pos = 0;
    if (!ReadLayers(set, pos, sps))
        return 0;
    // The copy has lost its escapes once already. Bytes that look like one are skipped again: the
    // sizes in stored heads were read so.
    KTH26XReader bits(set.Bytes(), pos, set.Size(), KTH26XReader::kSkipped);
    if (!ReadSize(bits, sps))
        return 0;
    KTH26XPut(coded, sps.coded);
    KTH26XPut(width, sps.coded.width);
    KTH26XPut(height, sps.coded.height);
    if (!ReadWindow(bits, sps))
        return 0;
    KTH26XPut(width,
              sps.coded.width - WindowUnitX(sps.chromaFormat) * (sps.windowLeft + sps.windowRight));
    KTH26XPut(height, sps.coded.height -
                          WindowUnitY(sps.chromaFormat) * (sps.windowTop + sps.windowBottom));
    return references == nullptr || ReadReferences(bits, sps, *references) ? 1 : 0;
}

// ---- standard sizes ----

/// Length less its conformance window. False when nothing is left of it.
bool Crop(unsigned int coded, unsigned int unit, unsigned int before, unsigned int after,
          unsigned int& display) {
    const unsigned long long crop = unit * (static_cast<unsigned long long>(before) + after);
    if (crop >= coded)
        return false;
    display = static_cast<unsigned int>(coded - crop);
    return true;
}

}  // namespace

int H265DecodeSPS(const unsigned char* body, int len, unsigned int* width, unsigned int* height,
                  unsigned int*) {
    if (body == nullptr || len < 15)
        return 0;
    return Walk(body, static_cast<unsigned int>(len), nullptr, width, height, nullptr);
}

int H265DecodeResolution(const unsigned char* nal, unsigned int len, tag_KTSIZES* coded,
                         tag_KTSIZES* display, void*, unsigned int* maxDecPicBuffering) {
    if (nal == nullptr || len < 21)
        return 0;
    unsigned int references = 0;
    const int result = Walk(nal + 6, len - 6, coded, display != nullptr ? &display->width : nullptr,
                            display != nullptr ? &display->height : nullptr, &references);
    if (result == 1)
        KTH26XPut(maxDecPicBuffering, references);
    return result;
}

int H265DecodeVPSRefnum(const unsigned char* vps, unsigned int len) {
    if (vps == nullptr)
        return -1;
    if (len >= 5 && vps[0] == 0 && vps[1] == 0 && vps[2] == 0 && vps[3] == 1) {
        vps += 4;
        len -= 4;
    }
    // nal_unit_type 32 in a unit header; without one the byte begins with the set's number.
    if (len >= 2 && (vps[0] >> 1 & 63) == 32) {
        vps += 2;
        len -= 2;
    }
    const Payload set(vps, len);
    // vps_video_parameter_set_id u(4), vps_base_layer_internal_flag u(1),
    // vps_base_layer_available_flag u(1), vps_max_layers_minus1 u(6),
    // vps_max_sub_layers_minus1 u(3), vps_temporal_id_nesting_flag u(1),
    // vps_reserved_0xffff_16bits u(16)
    unsigned int pos = 0;
    if (!SkipBytes(set, pos, 4))
        return -1;
    const unsigned int maxSubLayersMinus1 = set.Bytes()[1] >> 1 & 7;
    if (!SkipProfileTierLevel(set, pos, maxSubLayersMinus1))
        return -1;
    KTH26XReader bits(set.Bytes(), pos, set.Size(), KTH26XReader::kSkipped);
    unsigned int values[kMostSubLayers];
    unsigned int count = 0;
    if (!ReadDecPicBuffering(bits, maxSubLayersMinus1, values, count))
        return -1;
    int largest = -1;
    for (unsigned int i = 0; i < count; ++i)
        if (static_cast<int>(values[i]) > largest)
            largest = static_cast<int>(values[i]);
    return largest;
}

int H265DecodeSize(const unsigned char* unit, unsigned int len, tag_KTSIZES* coded,
                   tag_KTSIZES* display) {
    if (unit == nullptr || len < 3)
        return 0;
    // forbidden_zero_bit f(1), nal_unit_type u(6), nuh_layer_id u(6), nuh_temporal_id_plus1 u(3).
    // A set of another layer is laid out differently.
    if (unit[0] != 33 << 1 || unit[1] >> 3 != 0)
        return 0;
    const Payload set(unit + 2, len - 2);
    Sps sps;
    unsigned int pos = 0;
    if (!ReadLayers(set, pos, sps))
        return 0;
    KTH26XReader bits(set.Bytes(), pos, set.Size(), KTH26XReader::kData);
    if (!ReadSize(bits, sps) || !ReadWindow(bits, sps))
        return 0;
    // Value ranges of 7.4.3.2.1.
    if (sps.maxSubLayersMinus1 > 6 || sps.id > 15 || sps.chromaFormat > 3)
        return 0;
    tag_KTSIZES shown = {};
    if (!Crop(sps.coded.width, WindowUnitX(sps.chromaFormat), sps.windowLeft, sps.windowRight,
              shown.width) ||
        !Crop(sps.coded.height, WindowUnitY(sps.chromaFormat), sps.windowTop, sps.windowBottom,
              shown.height))
        return 0;
    KTH26XPut(coded, sps.coded);
    KTH26XPut(display, shown);
    return 1;
}
