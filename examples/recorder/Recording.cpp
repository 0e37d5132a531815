#include "Recording.h"

#include <filesystem>

namespace {

constexpr unsigned int kHeaderBytes = 20;
constexpr unsigned int kMostFiles = 10000;

const char* const kIndex = ".index";

/// The code of a failed write is that of the call after it, so the rest is tried again until there
/// is one.
int WriteAll(IKWFile& file, const unsigned char* bytes, unsigned int count) {
    while (count != 0) {
        const int written = file.Write(bytes, count);
        if (written < 1)
            return written < 0 ? written : KT_ERROR;
        bytes += written;
        count -= static_cast<unsigned int>(written);
    }
    return KT_OK;
}

const char* Reason(int result) {
    switch (result) {
        case KT_FULL:
            return "the disk is full, or a limit of file sizes is reached";
        case KT_NOT_FOUND:
            return "the folder is gone";
        case KT_NO_MEMORY:
            return "not enough memory";
        default:
            return "the file cannot be written";
    }
}

/// Takes back what stands behind the whole frames; a smaller file needs no room, so this works on a
/// full disk, too. False when the system refuses.
bool Cut(const std::string& path, unsigned long long bytes) {
    std::error_code error;
    std::filesystem::resize_file(std::filesystem::u8path(path), bytes, error);
    return !error;
}

}  // namespace

Recording::Recording(const std::string& folder, const std::string& name)
    : m_folder(folder), m_name(name), m_desc(CKTMediaDesc::Create(0)) {}

const char* Recording::Write(CPacket& packet) {
    if (packet.FrameIsKey() && IsNewFormat(packet))
        if (const char* const why = Close())
            return why;
    if (!m_frames.IsOpen())
        if (const char* const why = Open(packet))
            return why;
    const unsigned int bytes = packet.FrameGetLength();
    int result = WriteAll(m_frames, packet.FrameGetData(), bytes);
    if (result == KT_OK)
        result = WriteAll(m_index, packet.GetData(), kHeaderBytes);
    if (result != KT_OK)
        return GiveUp(result);
    m_frameBytes += bytes;
    m_indexBytes += kHeaderBytes;
    return nullptr;
}

const char* Recording::Close() {
    if (!m_frames.IsOpen())
        return nullptr;
    int result = m_frames.Commit();
    if (result == KT_OK)
        result = m_index.Commit();
    if (result != KT_OK)
        return GiveUp(result);
    m_frames.Close();
    m_index.Close();
    return nullptr;
}

/// Whether the key frame begins another format than the files hold: other parameter sets, sizes or
/// codec. The description keeps a media head, and replaces it by one that fits the frame.
bool Recording::IsNewFormat(CPacket& key) {
    const bool sameCodec = m_codec == key.FrameGetCodec();
    m_codec = key.FrameGetCodec();
    if (m_desc == nullptr)
        return !sameCodec;
    const CKTVideoHead* const held = m_desc->GetVideoHead();
    const std::unique_ptr<CKTMediaHead> before(held != nullptr ? held->Clone() : nullptr);
    m_desc->Setup(&key);
    CKTVideoHead* const now = m_desc->GetVideoHead();
    if (!sameCodec || before == nullptr)
        return !sameCodec;
    // A frame whose header tells another size than its parameter sets gets a new head each time:
    // only a head that differs is another format.
    return now == nullptr || !(before->Check(&key) || before->Check(now));
}

bool Recording::IsTaken(const std::string& stem) {
    IKWFileInfo info;
    for (const char* const extension : {".h264", ".h265", ".h264.index", ".h265.index"}) {
        info.Query((stem + extension).c_str());
        if (info.Exists())
            return true;
    }
    return false;
}

/// Opens the pair with the next number that is free.
const char* Recording::Open(const CPacket& key) {
    m_frameBytes = 0;
    m_indexBytes = 0;
    while (++m_number <= kMostFiles) {
        std::string stem = m_folder + "/" + m_name;
        if (m_number > 1)
            stem += "-" + std::to_string(m_number);
        if (IsTaken(stem))
            continue;
        m_path = stem + (key.FrameIsH265() ? ".h265" : ".h264");
        int result = m_frames.Open(m_path.c_str(), "a");
        if (result == KT_OK)
            result = m_index.Open((m_path + kIndex).c_str(), "a");
        if (result == KT_OK && m_frames.GetSize() == 0 && m_index.GetSize() == 0)
            return nullptr;
        m_frames.Close();
        m_index.Close();
        if (result != KT_OK)
            return Reason(result);
        // Another program was quicker: appending has not touched what it wrote.
    }
    return "there are too many files of this name";
}

const char* Recording::GiveUp(int result) {
    m_frames.Close();
    m_index.Close();
    if (!Cut(m_path, m_frameBytes) || !Cut(m_path + kIndex, m_indexBytes))
        return "the file cannot be written, and its last frame is torn: the index tells the whole "
               "ones";
    return Reason(result);
}
