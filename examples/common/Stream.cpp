#include "Stream.h"

#include <KTBase/KTH26X.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>

#include "Fields.h"

namespace {

struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// A stream begins with a start code; only zero bytes may stand before it.
bool BeginsWithCode(const unsigned char* bytes, unsigned int size) {
    unsigned int at = 0;
    while (at < size && bytes[at] == 0)
        ++at;
    return at >= 2 && at < size && bytes[at] == 1;
}

void FindUnits(const unsigned char* bytes, unsigned int size, Stream& out) {
    Unit unit;
    while (H26XNextUnit(bytes, size, unit.begin + unit.length, &unit.begin, &unit.length) != 0) {
        unit.codeBytes = unit.begin >= 4 && bytes[unit.begin - 4] == 0 ? 4 : 3;
        out.units.push_back(unit);
    }
}

/// The first sequence parameter set tells the codec: no unit is one by both standards.
bool FindCodec(Stream& stream) {
    for (const Unit& unit : stream.units) {
        const bool h264 = H264DecodeSize(stream.At(unit), unit.length, nullptr, nullptr) != 0;
        stream.h265 = H265DecodeSize(stream.At(unit), unit.length, nullptr, nullptr) != 0;
        if (h264 || stream.h265)
            return true;
    }
    return false;
}

void Classify(const Stream& stream, Unit& unit) {
    const unsigned char* const header = stream.At(unit);
    if (!stream.h265) {
        unit.type = header[0] & 31;
        unit.isSlice = unit.type == 1 || unit.type == 2 || unit.type == 5;
        unit.isKey = unit.type == 5;
        return;
    }
    unit.type = header[0] >> 1 & 63;
    const bool baseLayer = unit.length >= 2 && (header[0] & 1) == 0 && header[1] >> 3 == 0;
    unit.isSlice = baseLayer && (unit.type <= 9 || (unit.type >= 16 && unit.type <= 21));
    unit.isKey = unit.isSlice && unit.type >= 16;
}

/// Whether a unit that is no slice belongs to the slices before it: 7.4.1.2.3 of H.264, 7.4.2.4.4
/// of H.265.
bool EndsFrame(const Stream& stream, const Unit& unit) {
    if (!stream.h265)
        return (unit.type >= 10 && unit.type <= 12) || (unit.type >= 19 && unit.type <= 21);
    return unit.type < 32 || (unit.type >= 36 && unit.type <= 38) || unit.type == 40;
}

/// Lists each different parameter set once.
class SetCounter {
public:
    explicit SetCounter(Stream& stream) : m_stream(stream) {}

    void Take(unsigned int index) {
        const Unit& unit = m_stream.units[index];
        const std::string_view bytes(reinterpret_cast<const char*>(m_stream.At(unit)), unit.length);
        const auto place = m_places.emplace(bytes, m_stream.sets.size());
        if (place.second)
            m_stream.sets.push_back({index, 0});
        ++m_stream.sets[place.first->second].times;
    }

private:
    Stream& m_stream;
    std::map<std::string_view, std::size_t> m_places;  // of a set's bytes, in the list
};

/// Tells whether a slice is the first one of its frame.
class FrameFinder {
public:
    explicit FrameFinder(const Stream& stream) : m_stream(stream) {}

    void TakeSet(const Unit& unit) {
        if (m_stream.h265)
            return;
        if (m_stream.IsSps(unit)) {
            const H264Sps sps = ReadH264Sps(m_stream.At(unit), unit.length);
            if (sps.ok)
                m_sps[sps.id] = sps;
        } else if (m_stream.IsPps(unit)) {
            const PpsIds ids = ReadPpsIds(false, m_stream.At(unit), unit.length);
            if (ids.ok)
                m_spsOfPps[ids.pps] = ids.sps;
        }
    }

    bool Begins(const Unit& unit) {
        if (m_stream.h265)  // first_slice_segment_in_pic_flag
            return unit.length >= 3 && (m_stream.At(unit)[2] & 0x80) != 0;
        H264Slice slice = ReadH264Slice(m_stream.At(unit), unit.length, nullptr);
        if (slice.firstMb != 0)
            return false;
        slice = ReadH264Slice(m_stream.At(unit), unit.length, SpsOf(slice.ppsId));
        // The second field belongs to the first one's frame.
        const bool second = m_hasOpenField && slice.isField && !unit.isKey &&
                            slice.isBottom != m_last.isBottom && slice.frameNum == m_last.frameNum;
        m_hasOpenField = slice.isField && !second;
        m_last = slice;
        return !second;
    }

private:
    const H264Sps* SpsOf(unsigned int ppsId) const {
        const auto pps = m_spsOfPps.find(ppsId);
        if (pps == m_spsOfPps.end())
            return nullptr;
        const auto sps = m_sps.find(pps->second);
        return sps != m_sps.end() ? &sps->second : nullptr;
    }

    const Stream& m_stream;
    std::map<unsigned int, H264Sps> m_sps;  // by number
    std::map<unsigned int, unsigned int> m_spsOfPps;
    H264Slice m_last;
    bool m_hasOpenField = false;  // the last picture was a field whose other one may come
};

void FindFrames(Stream& stream) {
    FrameFinder finder(stream);
    SetCounter sets(stream);
    for (unsigned int i = 0; i < stream.units.size(); ++i) {
        Unit& unit = stream.units[i];
        if (stream.IsSps(unit) || stream.IsPps(unit) || stream.IsVps(unit)) {
            finder.TakeSet(unit);
            sets.Take(i);
        }
        if (!unit.isSlice) {
            if (!stream.frames.empty() && stream.frames.back().lastUnit + 1 == i &&
                EndsFrame(stream, unit))
                stream.frames.back().lastUnit = i;
            continue;
        }
        if (finder.Begins(unit))
            stream.frames.push_back(
                {stream.frames.empty() ? 0 : stream.frames.back().lastUnit + 1, i, false});
        if (stream.frames.empty())  // the rest of a frame that began before the stream
            continue;
        Frame& frame = stream.frames.back();
        unit.frame = static_cast<int>(stream.frames.size() - 1);
        frame.lastUnit = i;
        if (unit.isKey && !frame.isKey) {
            frame.isKey = true;
            ++stream.keyFrames;
        }
    }
}

}  // namespace

const char* ReadFile(const char* path, std::vector<unsigned char>& bytes) {
    const std::unique_ptr<std::FILE, Closer> file(std::fopen(path, "rb"));
    if (file == nullptr)
        return std::strerror(errno);
    unsigned char block[65536];
    std::size_t count = 0;
    while ((count = std::fread(block, 1, sizeof(block), file.get())) != 0) {
        if (bytes.size() + count > UINT_MAX)
            return "larger than 4 GB";
        bytes.insert(bytes.end(), block, block + count);
    }
    return std::ferror(file.get()) != 0 ? std::strerror(errno) : nullptr;
}

const char* ReadStream(const unsigned char* bytes, unsigned int size, Stream& out) {
    if (size == 0)
        return "the file is empty";
    if (!BeginsWithCode(bytes, size))
        return "no H.264 or H.265 byte stream: it does not begin with a start code";
    out.bytes = bytes;
    FindUnits(bytes, size, out);
    if (!FindCodec(out))
        return "no H.264 or H.265 byte stream: it holds no sequence parameter set";
    for (Unit& unit : out.units)
        Classify(out, unit);
    FindFrames(out);
    return nullptr;
}
