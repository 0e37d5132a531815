// The files of one camera.
#ifndef KTRECORDER_RECORDING_H
#define KTRECORDER_RECORDING_H

#include <KTBase/KTFile.h>
#include <KTBase/KTMedia.h>
#include <KTBase/KTPacket.h>

#include <memory>
#include <string>

/// Writes NAME.h264 (or .h265), the frames as they came, and beside it NAME.h264.index, the frame
/// header of each, 20 bytes: a frame begins where the lengths of those before it end. When the
/// format changes a new pair begins: NAME-2.h264 and so on. A file that is there already is left
/// alone, so a recorder that is started again takes the next number, too.
///
/// The index is written behind the frame: a recorder that is killed leaves at most bytes that the
/// index does not know of. A write that fails is taken back, so both end with a whole frame.
class Recording {
public:
    Recording(const std::string& folder, const std::string& name);
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    /// Writes a frame, the first of all a key frame. Null, or why it failed: the files are then
    /// closed, and nothing more is to be written.
    const char* Write(CPacket& packet);
    /// Returns when the medium has everything. Null, or why it failed.
    const char* Close();

    const std::string& GetPath() const { return m_path; }  ///< of the last file, empty before

private:
    struct Release {
        void operator()(CKTMediaDesc* desc) const { desc->Release(); }
    };

    bool IsNewFormat(CPacket& key);
    const char* Open(const CPacket& key);
    bool IsTaken(const std::string& stem);
    const char* GiveUp(int result);

    const std::string m_folder;
    const std::string m_name;
    unsigned int m_number = 0;  // of the last file
    std::string m_path;
    IKWFile m_frames;
    IKWFile m_index;
    unsigned long long m_frameBytes = 0;  // of whole frames in the file
    unsigned long long m_indexBytes = 0;
    std::unique_ptr<CKTMediaDesc, Release> m_desc;
    unsigned char m_codec = 0;
};

#endif
