// ktinspect: shows what an H.264 or H.265 byte stream holds, and the description it leads to.
#include <KTBase/KTH26X.h>
#include <KTBase/KTMedia.h>
#include <KTBase/KTPacket.h>

#include <climits>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Fields.h"
#include "Names.h"
#include "Stream.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

/// Most units, and most parameter sets, that are listed without --all.
constexpr std::size_t kRows = 32;

constexpr unsigned char kKeyFrame = 1;  // frame type of a packet
constexpr unsigned char kH264 = 1;      // codecs of a packet
constexpr unsigned char kH265 = 2;

const char* const kUsage = "Usage: ktinspect [--all] FILE\n       ktinspect --help\n";

const char* const kHelp =
    "\n"
    "Shows what FILE, an H.264 or H.265 byte stream (ITU-T Annex B), holds:\n"
    "  units            offset of the unit's header and length, both in bytes and without the\n"
    "                   start code; bytes of the start code; nal_unit_type; the frame it is a\n"
    "                   slice of; \"key\" for slices that decoding can begin with\n"
    "                   (H.264: IDR, H.265: IRAP)\n"
    "  parameter sets   sizes, profile, level and reference frames by the standards; the size\n"
    "                   that a media head holds where it is another one\n"
    "  frames           two fields of a pair count as one\n"
    "  description      the CKTMediaDesc that the key frames lead to\n"
    "\n"
    "  --all    lists all units and parameter sets, not only the first 32 of each\n"
    "  --help   prints this text\n"
    "\n"
    "Exit code: 0; 1 when FILE cannot be read or is no such stream; 2 for wrong usage.\n";

struct Releaser {
    template <class T>
    void operator()(T* object) const {
        object->Release();
    }
};

int Fail(const char* path, const char* why) {
    std::fflush(stdout);
    std::fprintf(stderr, "ktinspect: %s: %s\n", path, why);
    return kFailed;
}

std::string SizeText(unsigned int width, unsigned int height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

std::size_t RowsOf(std::size_t count, bool all) {
    return all || count <= kRows ? count : kRows;
}

// ---- units ----

void PrintUnits(const Stream& stream, bool all) {
    std::printf("\n%6s %10s %9s %5s  %-47s %6s  %s\n", "unit", "offset", "length", "code", "type",
                "frame", "key");
    const std::size_t count = stream.units.size();
    const std::size_t rows = RowsOf(count, all);
    for (std::size_t i = 0; i < rows; ++i) {
        const Unit& unit = stream.units[i];
        const std::string frame = unit.frame >= 0 ? std::to_string(unit.frame) : "-";
        std::printf("%6zu %10u %9u %5u  %2u %-44s %6s%s\n", i, unit.begin, unit.length,
                    unit.codeBytes, unit.type, UnitName(stream.h265, unit.type).c_str(),
                    frame.c_str(), unit.isKey ? "  key" : "");
    }
    if (rows < count)
        std::printf("%6s %zu more units follow: --all lists them\n", "...", count - rows);
}

// ---- parameter sets ----

/// The size that a media head takes from a sequence parameter set. False when it refuses the set.
bool HeadSize(const Stream& stream, const Unit& unit, tag_KTSIZES& size) {
    const unsigned char* const bytes = stream.At(unit);
    const unsigned int headerBytes = stream.h265 ? 2 : 1;
    if (unit.length <= headerBytes)
        return false;
    CKTH264Head h264;
    CKTH265Head h265;
    CKTVideoHead& head = stream.h265 ? static_cast<CKTVideoHead&>(h265) : h264;
    const unsigned int header = stream.h265 ? bytes[0] | bytes[1] << 8 : bytes[0];
    if (head.SetNAL(header, bytes + headerBytes, unit.length - headerBytes) != 0)
        return false;
    size = {head.GetWidth(), head.GetHeight()};
    return true;
}

/// The standard sizes, and the one that a media head takes from this set. False when there are none.
bool PrintSizes(const Stream& stream, const Unit& unit) {
    const unsigned char* const bytes = stream.At(unit);
    tag_KTSIZES coded = {};
    tag_KTSIZES shown = {};
    const auto decode = stream.h265 ? H265DecodeSize : H264DecodeSize;
    if (decode(bytes, unit.length, &coded, &shown) == 0) {
        std::printf("    %-18s%s\n", "size", "cannot be decoded");
        return false;
    }
    const std::string display = SizeText(shown.width, shown.height);
    std::printf("    %-18s%s\n", "coded size", SizeText(coded.width, coded.height).c_str());
    std::printf("    %-18s%s\n", "display size", display.c_str());

    tag_KTSIZES held = {};
    const std::string head =
        HeadSize(stream, unit, held) ? SizeText(held.width, held.height) : "cannot read this set";
    if (head != display)
        std::printf("    %-18s%s\n", "media head", head.c_str());
    return true;
}

void PrintH264Sps(const Stream& stream, const Unit& unit) {
    const H264Sps sps = ReadH264Sps(stream.At(unit), unit.length);
    if (!sps.ok)
        return;
    std::printf("    %-18s%s (%u)\n", "profile",
                H264Profile(sps.profileIdc, sps.constraints).c_str(), sps.profileIdc);
    std::printf("    %-18s%s\n", "level",
                H264Level(sps.profileIdc, sps.constraints, sps.levelIdc).c_str());
    std::printf("    %-18s%u\n", "reference frames", sps.refFrames);
}

void PrintH265Sps(const Stream& stream, const Unit& unit) {
    const H265Profiling profiling = ReadH265Profiling(stream.At(unit), unit.length);
    if (!profiling.ok)
        return;
    std::printf("    %-18s%s (%u)\n", "profile", H265Profile(profiling.profileIdc).c_str(),
                profiling.profileIdc);
    std::printf("    %-18s%s, %s tier\n", "level", H265Level(profiling.levelIdc).c_str(),
                profiling.highTier ? "High" : "Main");
    // sps_max_dec_pic_buffering_minus1: the pictures kept beside the current one.
    std::vector<unsigned char> coded = {0, 0, 0, 1};
    coded.insert(coded.end(), stream.At(unit), stream.At(unit) + unit.length);
    tag_KTSIZES sizes = {};
    unsigned int references = 0;
    if (H265DecodeResolution(coded.data(), static_cast<unsigned int>(coded.size()), &sizes, &sizes,
                             nullptr, &references) != 0)
        std::printf("    %-18s%u\n", "reference frames", references);
}

std::string SetTitle(const Stream& stream, const Unit& unit) {
    const unsigned char* const bytes = stream.At(unit);
    if (stream.IsVps(unit))
        return "VPS " + (unit.length > 2 ? std::to_string(bytes[2] >> 4) : "?");
    if (stream.IsPps(unit)) {
        const PpsIds ids = ReadPpsIds(stream.h265, bytes, unit.length);
        return ids.ok ? "PPS " + std::to_string(ids.pps) + " of SPS " + std::to_string(ids.sps)
                      : "PPS ?";
    }
    if (stream.h265) {
        const H265Profiling profiling = ReadH265Profiling(bytes, unit.length);
        return "SPS " + (profiling.ok ? std::to_string(profiling.id) : "?");
    }
    const H264Sps sps = ReadH264Sps(bytes, unit.length);
    return "SPS " + (sps.ok ? std::to_string(sps.id) : "?");
}

void PrintSets(const Stream& stream, bool all) {
    std::printf("\nParameter sets\n");
    const std::size_t count = stream.sets.size();
    const std::size_t rows = RowsOf(count, all);
    for (std::size_t i = 0; i < rows; ++i) {
        const ParameterSet& set = stream.sets[i];
        const Unit& unit = stream.units[set.unit];
        const std::string times = set.times == 1 ? "once" : std::to_string(set.times) + " times";
        std::printf("  %s: unit %u, %u bytes, %s\n", SetTitle(stream, unit).c_str(), set.unit,
                    unit.length, times.c_str());
        if (!stream.IsSps(unit) || !PrintSizes(stream, unit))
            continue;
        if (stream.h265)
            PrintH265Sps(stream, unit);
        else
            PrintH264Sps(stream, unit);
    }
    if (rows < count)
        std::printf("  ... %zu more parameter sets follow: --all lists them\n", count - rows);
}

// ---- description ----

/// The frame as a device sends it: units behind four-byte codes, and in its header the size that a
/// media head knows. Null when memory is out.
CPacket* PacketOf(const Stream& stream, const Frame& frame, const tag_KTSIZES& size) {
    const Unit& first = stream.units[frame.firstUnit];
    const Unit& last = stream.units[frame.lastUnit];
    const unsigned char* const begin = stream.At(first) - first.codeBytes;
    const unsigned int length = static_cast<unsigned int>(stream.At(last) + last.length - begin);
    const long long payload = H26XNormalise(begin, length, nullptr, 0);
    if (payload < 0 || payload > UINT_MAX - 20)
        return nullptr;
    const unsigned int bytes = static_cast<unsigned int>(payload);
    CPacket* const packet = CPacket::Acquire(bytes + 20, 0);
    if (packet == nullptr)
        return nullptr;
    packet->FrameInit();
    packet->FrameSetType(kKeyFrame);
    packet->FrameSetCodec(stream.h265 ? kH265 : kH264);
    packet->FrameSetWidth(static_cast<unsigned short>(size.width));
    packet->FrameSetHeight(static_cast<unsigned short>(size.height));
    packet->FrameSetLength(bytes);
    H26XNormalise(begin, length, packet->FrameGetData(), bytes);
    return packet;
}

/// Null when memory is out.
CKTMediaDesc* Describe(const Stream& stream) {
    std::unique_ptr<CKTMediaDesc, Releaser> desc(CKTMediaDesc::Create(0));
    if (desc == nullptr)
        return nullptr;
    tag_KTSIZES size = {};  // by the last parameter set
    for (const Frame& frame : stream.frames) {
        for (unsigned int i = frame.firstUnit; i <= frame.lastUnit; ++i)
            if (stream.IsSps(stream.units[i]))
                HeadSize(stream, stream.units[i], size);
        if (!frame.isKey)
            continue;
        const std::unique_ptr<CPacket, Releaser> packet(PacketOf(stream, frame, size));
        if (packet == nullptr)
            return nullptr;
        desc->Setup(packet.get());
    }
    return desc.release();
}

void PrintDescription(const CKTMediaDesc& desc) {
    std::printf("\nCKTMediaDesc\n");
    const CKTVideoHead* const head = desc.GetVideoHead();
    if (head == nullptr) {
        std::printf("  video   none: no key frame\n");
    } else {
        std::printf("  video   %s, codec %u, %s, %s, %u bytes of parameter sets\n",
                    head->IsH265() ? "CKTH265Head" : "CKTH264Head", head->GetCodec(),
                    SizeText(head->GetWidth(), head->GetHeight()).c_str(),
                    head->IsValid() ? "valid" : "not valid: parameter sets are missing",
                    head->GetLength(0));
    }
    std::printf("  audio   none\n");
}

int Inspect(const char* path, bool all) {
    std::vector<unsigned char> bytes;
    if (const char* const why = ReadFile(path, bytes))
        return Fail(path, why);
    Stream stream;
    const unsigned int size = static_cast<unsigned int>(bytes.size());
    if (const char* const why = ReadStream(bytes.data(), size, stream))
        return Fail(path, why);
    const std::unique_ptr<CKTMediaDesc, Releaser> desc(Describe(stream));
    if (desc == nullptr)
        return Fail(path, "not enough memory");

    std::printf("%s: %s, %u bytes, %zu units\n", path, stream.h265 ? "H.265" : "H.264", size,
                stream.units.size());
    PrintUnits(stream, all);
    PrintSets(stream, all);
    std::printf("\nFrames: %zu, key frames: %u\n", stream.frames.size(), stream.keyFrames);
    PrintDescription(*desc);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        return Fail(path, "the output cannot be written");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const char* path = nullptr;
    bool all = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help") {
            std::printf("%s%s", kUsage, kHelp);
            return 0;
        }
        if (argument == "--all") {
            all = true;
        } else if (path != nullptr || argument.empty() || argument[0] == '-') {
            path = nullptr;
            break;
        } else {
            path = argv[i];
        }
    }
    if (path == nullptr) {
        std::fprintf(stderr, "%sktinspect --help says more.\n", kUsage);
        return kWrongUsage;
    }
    try {
        return Inspect(path, all);
    } catch (const std::bad_alloc&) {
        return Fail(path, "not enough memory");
    }
}
