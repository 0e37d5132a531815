#include "KTBase/KTFile.h"

#include <climits>
#include <cstring>

#include "os/KTOsFile.h"

namespace {

bool IsEmpty(const char* text) {
    return text == nullptr || *text == 0;
}

int ParseMode(const char* mode, KTOsFileAccess& access) {
    access = KTOsFileAccess{};
    switch (*mode) {
        case 'r':
            access.read = true;
            break;
        case 'w':
            access.write = access.create = access.truncate = true;
            break;
        case 'a':
            access.write = access.create = access.append = true;
            break;
        default:
            return KT_UNSUPPORTED;
    }
    for (const char* letter = mode + 1; *letter != 0; ++letter) {
        if (*letter == '+')
            access.read = access.write = true;
        else if (*letter != 'b')
            return KT_UNSUPPORTED;
    }
    return KT_OK;
}

/// Milliseconds since 1970 as a time; what a CKTTime cannot hold becomes the null time.
void SetTime(CKTTime& time, long long ms) {
    constexpr long long kBegin = 946684800000;  // 2000-01-01
    constexpr long long kEnd = 2966371200000;   // 2064-01-01
    time.Empty();
    if (ms < kBegin || ms >= kEnd)
        return;
    time.SetTime(ms / 1000);
    time.SetMS(static_cast<unsigned short>(ms % 1000));
}

// ---- patterns ----

char Fold(char c) {
    return KTOsPathFoldsCase() && c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Behind the UTF-8 character at text.
const char* NextCharacter(const char* text) {
    do
        ++text;
    while ((*text & 0xC0) == 0x80);
    return text;
}

bool Matches(const char* pattern, const char* name) {
    const char* behindStar = nullptr;  // of the last star, which can take in more
    const char* taken = nullptr;       // the name behind what that star has taken so far
    while (*name != 0) {
        if (*pattern == '*') {
            behindStar = ++pattern;
            taken = name;
        } else if (*pattern == '?') {
            ++pattern;
            name = NextCharacter(name);
        } else if (*pattern != 0 && Fold(*pattern) == Fold(*name)) {
            ++pattern;
            ++name;
        } else if (behindStar != nullptr) {
            pattern = behindStar;
            name = taken = NextCharacter(taken);
        } else {
            return false;
        }
    }
    while (*pattern == '*')
        ++pattern;
    return *pattern == 0;
}

}  // namespace

IKWFile::IKWFile() : m_handle(nullptr) {}

IKWFile::~IKWFile() {
    Close();
}

int IKWFile::Open(const char* path, const char* mode) {
    if (m_handle != nullptr)
        return KT_BAD_STATE;
    if (IsEmpty(path) || mode == nullptr)
        return KT_ARGUMENT;
    KTOsFileAccess access;
    const int result = ParseMode(mode, access);
    return result == KT_OK ? KTOsFileOpen(m_handle, path, access) : result;
}

int IKWFile::Close() {
    if (m_handle == nullptr)
        return KT_BAD_STATE;
    void* handle = m_handle;
    m_handle = nullptr;
    return KTOsFileClose(handle);
}

bool IKWFile::IsOpen() const {
    return m_handle != nullptr;
}

int IKWFile::Read(void* buffer, unsigned int len) {
    if (buffer == nullptr || len > INT_MAX)
        return KT_ARGUMENT;
    return m_handle == nullptr ? KT_BAD_STATE
                               : static_cast<int>(KTOsFileRead(m_handle, buffer, len));
}

int IKWFile::Write(const void* data, unsigned int len) {
    if (data == nullptr || len > INT_MAX)
        return KT_ARGUMENT;
    return m_handle == nullptr ? KT_BAD_STATE
                               : static_cast<int>(KTOsFileWrite(m_handle, data, len));
}

long long IKWFile::Seek(long long offset, int origin) {
    if (m_handle == nullptr)
        return KT_BAD_STATE;
    if (origin < KW_SEEK_BEGIN || origin > KW_SEEK_END)
        return KT_UNSUPPORTED;
    return KTOsFileSeek(m_handle, offset, origin);
}

long long IKWFile::Tell() {
    return Seek(0, KW_SEEK_CURRENT);
}

long long IKWFile::GetSize() {
    if (m_handle == nullptr)
        return KT_BAD_STATE;
    return KTOsFileSize(m_handle);
}

int IKWFile::Commit() {
    return m_handle == nullptr ? KT_BAD_STATE : KTOsFileCommit(m_handle);
}

IKWFileInfo::IKWFileInfo()
    : m_exists(false),
      m_directory(false),
      m_sizeBytes(0),
      m_created(true),
      m_accessed(true),
      m_modified(true) {}

int IKWFileInfo::Query(const char* path) {
    Clear();
    if (IsEmpty(path))
        return KT_ARGUMENT;
    KTOsFileStat stat;
    const int result = KTOsFileQuery(path, stat);
    if (result == KT_OK)
        Fill(stat);
    return result;
}

bool IKWFileInfo::Exists() const {
    return m_exists;
}

bool IKWFileInfo::IsDirectory() const {
    return m_directory;
}

unsigned long long IKWFileInfo::GetSize() const {
    return m_sizeBytes;
}

const CKTTime& IKWFileInfo::GetCreateTime() const {
    return m_created;
}

const CKTTime& IKWFileInfo::GetAccessTime() const {
    return m_accessed;
}

const CKTTime& IKWFileInfo::GetModifyTime() const {
    return m_modified;
}

void IKWFileInfo::Clear() {
    m_exists = false;
    m_directory = false;
    m_sizeBytes = 0;
    m_created.Empty();
    m_accessed.Empty();
    m_modified.Empty();
}

void IKWFileInfo::Fill(const KTOsFileStat& stat) {
    m_exists = true;
    m_directory = stat.directory;
    m_sizeBytes = stat.sizeBytes;
    SetTime(m_created, stat.createdMs);
    SetTime(m_accessed, stat.accessedMs);
    SetTime(m_modified, stat.modifiedMs);
}

IKWFileFind::IKWFileFind() : m_handle(nullptr), m_nameAt(0) {}

IKWFileFind::~IKWFileFind() {
    Close();
}

int IKWFileFind::Open(const char* directory, const char* pattern) {
    if (IsEmpty(directory))
        return KT_ARGUMENT;
    // Copied before the old walk is closed: both may lie in its path.
    CKTString folder(directory), wanted(IsEmpty(pattern) ? "*" : pattern);
    if (folder.IsEmpty() || wanted.IsEmpty())
        return KT_NO_MEMORY;
    Close();
    if (!KTOsPathIsSeparator(folder[static_cast<int>(folder.GetLength()) - 1]))
        folder += "/";
    m_folder = folder;
    m_pattern = wanted;
    if (m_folder.GetLength() != folder.GetLength() || m_pattern.IsEmpty())
        return KT_NO_MEMORY;
    return KTOsDirectoryOpen(m_handle, m_folder.GetBuffer());
}

int IKWFileFind::Next() {
    if (m_handle == nullptr)
        return KT_BAD_STATE;
    m_nameAt = 0;
    m_info.Clear();
    char name[KT_OS_NAME_BYTES];
    for (;;) {
        const int found = KTOsDirectoryNext(m_handle, name);
        if (found != KT_OK)
            return found;
        if (!Matches(m_pattern.GetBuffer(), name))
            continue;
        const int taken = Take(name);
        if (taken != KT_NOT_FOUND)
            return taken;
        // Deleted since the system listed it.
    }
}

int IKWFileFind::Take(const char* name) {
    KTOsFileStat stat;
    const int result = KTOsDirectoryStat(m_handle, stat);
    if (result != KT_OK)
        return result;
    m_path = m_folder;
    if (m_path.IsEmpty() || (m_path << name) < 0)
        return KT_NO_MEMORY;
    m_nameAt = m_folder.GetLength();
    m_info.Fill(stat);
    return KT_OK;
}

void IKWFileFind::Close() {
    if (m_handle != nullptr)
        KTOsDirectoryClose(m_handle);
    m_handle = nullptr;
    m_nameAt = 0;
    m_info.Clear();
}

const char* IKWFileFind::GetName() const {
    return m_nameAt != 0 ? m_path.GetBuffer() + m_nameAt : nullptr;
}

const char* IKWFileFind::GetPath() const {
    return m_nameAt != 0 ? m_path.GetBuffer() : nullptr;
}

const IKWFileInfo& IKWFileFind::GetInfo() const {
    return m_info;
}

int KWFileFindFixed(CKTString& out) {
    struct Roots {
        CKTString* out;
        int count;
    } roots = {&out, 0};
    const int result = KTOsFixedWalk(
        [](void* context, const char* root) {
            Roots& list = *static_cast<Roots*>(context);
            const auto* bytes = reinterpret_cast<const unsigned char*>(root);
            const bool added =
                list.out->AppendDAT(bytes, static_cast<unsigned int>(std::strlen(root)) + 1) > 0;
            list.count = added ? list.count + 1 : KT_NO_MEMORY;
            return added;
        },
        &roots);
    return result == KT_OK ? roots.count : result;
}

int KWFileRename(const char* from, const char* to) {
    return IsEmpty(from) || IsEmpty(to) ? KT_ARGUMENT : KTOsFileRename(from, to);
}

int KWFileDelete(const char* path) {
    return IsEmpty(path) ? KT_ARGUMENT : KTOsFileDelete(path);
}

int KWFileMakeDirectory(const char* path) {
    if (IsEmpty(path))
        return KT_ARGUMENT;
    const int result = KTOsDirectoryMake(path);
    if (result != KT_NOT_FOUND)
        return result;
    CKTString parent(path);
    if (parent.IsEmpty())
        return KT_NO_MEMORY;
    char* text = parent.GetBuffer();
    for (char* at = text + 1; *at != 0; ++at) {
        if (!KTOsPathIsSeparator(*at))
            continue;
        const char separator = *at;
        *at = 0;
        // One that cannot be made shows when what lies in it is: a drive's name is none.
        KTOsDirectoryMake(text);
        *at = separator;
    }
    return KTOsDirectoryMake(path);
}
