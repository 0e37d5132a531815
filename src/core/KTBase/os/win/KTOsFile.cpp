#include "os/KTOsFile.h"

#ifndef NOMINMAX
#define NOMINMAX
#endif
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
#include <zlib.h>

#include <algorithm>
#include <cwchar>
#include <new>

#include "KTBase/KTDefs.h"
#include "KTHeap.h"

namespace {

int ResultOf(DWORD error) {
    switch (error) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_INVALID_NAME:
        case ERROR_INVALID_DRIVE:
        case ERROR_DIRECTORY:
        case ERROR_BAD_NETPATH:
        case ERROR_BAD_NET_NAME:
            return KT_NOT_FOUND;
        case ERROR_NOT_ENOUGH_MEMORY:
        case ERROR_OUTOFMEMORY:
            return KT_NO_MEMORY;
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
            return KT_FULL;
        case ERROR_INVALID_PARAMETER:
        case ERROR_NEGATIVE_SEEK:
        case ERROR_NO_UNICODE_TRANSLATION:
            return KT_ARGUMENT;
        default:
            return KT_ERROR;
    }
}

int LastResult() {
    return ResultOf(GetLastError());
}

int Result(BOOL success) {
    return success ? KT_OK : LastResult();
}

// A path in the system's UTF-16. Null text after a failure, which GetLastError then tells.
class WidePath {
public:
    explicit WidePath(const char* path, const wchar_t* suffix = L"") {
        const int units = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path, -1, nullptr, 0);
        if (units < 1)
            return;
        const std::size_t room = units + std::wcslen(suffix);
        m_text = static_cast<wchar_t*>(KTHeapAlloc(room * sizeof(wchar_t)));
        if (m_text == nullptr) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return;
        }
        MultiByteToWideChar(CP_UTF8, 0, path, -1, m_text, units);
        std::wcscpy(m_text + units - 1, suffix);
    }
    ~WidePath() { KTHeapFree(m_text); }
    WidePath(const WidePath&) = delete;
    WidePath& operator=(const WidePath&) = delete;

    const wchar_t* Text() const { return m_text; }

private:
    wchar_t* m_text = nullptr;
};

bool ToUtf8(const wchar_t* text, char* out, std::size_t room) {
    return WideCharToMultiByte(CP_UTF8, 0, text, -1, out, static_cast<int>(room), nullptr,
                               nullptr) > 0;
}

DWORD Disposition(const KTOsFileAccess& access) {
    if (access.truncate)
        return access.create ? CREATE_ALWAYS : TRUNCATE_EXISTING;
    return access.create ? OPEN_ALWAYS : OPEN_EXISTING;
}

DWORD DesiredAccess(const KTOsFileAccess& access) {
    DWORD desired = access.read ? GENERIC_READ : 0;
    if (access.append)
        desired |= FILE_GENERIC_WRITE & ~FILE_WRITE_DATA;  // leaves FILE_APPEND_DATA
    else if (access.write)
        desired |= GENERIC_WRITE;
    return desired;
}

// The system counts 100 ns from 1601; it writes 0 for a time that it does not keep.
long long Milliseconds(const FILETIME& time) {
    const unsigned long long ticks =
        static_cast<unsigned long long>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
    return ticks == 0 ? KT_OS_NO_TIME : static_cast<long long>(ticks / 10000) - 11644473600000LL;
}

// Data: WIN32_FILE_ATTRIBUTE_DATA or WIN32_FIND_DATAW.
template <class Data>
void Fill(const Data& data, KTOsFileStat& stat) {
    stat.directory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    stat.sizeBytes = stat.directory ? 0
                                    : static_cast<unsigned long long>(data.nFileSizeHigh) << 32 |
                                          data.nFileSizeLow;
    stat.createdMs = Milliseconds(data.ftCreationTime);
    stat.accessedMs = Milliseconds(data.ftLastAccessTime);
    stat.modifiedMs = Milliseconds(data.ftLastWriteTime);
}

bool IsDirectory(const wchar_t* path) {
    const DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

struct OsDirectory {
    HANDLE native;          // INVALID_HANDLE_VALUE for a drive without any entry
    WIN32_FIND_DATAW data;  // the entry given last, or with fresh the first one
    bool fresh;
    bool valid;  // data is an entry
};

bool Advance(OsDirectory& directory) {
    if (directory.fresh) {
        directory.fresh = false;
        directory.valid = directory.native != INVALID_HANDLE_VALUE;
        if (!directory.valid)
            SetLastError(ERROR_NO_MORE_FILES);
    } else if (directory.valid) {
        directory.valid = FindNextFileW(directory.native, &directory.data) != 0;
    } else {
        SetLastError(ERROR_NO_MORE_FILES);
    }
    return directory.valid;
}

}  // namespace

int KTOsFileOpen(void*& file, const char* path, const KTOsFileAccess& access) {
    file = nullptr;
    const WidePath wide(path);
    if (wide.Text() == nullptr)
        return LastResult();
    // Shared as on POSIX: others may read, write, rename and delete it.
    const HANDLE native = CreateFileW(wide.Text(), DesiredAccess(access),
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, Disposition(access), FILE_ATTRIBUTE_NORMAL, nullptr);
    if (native == INVALID_HANDLE_VALUE)
        return LastResult();
    if (access.append)
        KTOsFileSeek(native, 0, 2);
    file = native;
    return KT_OK;
}

int KTOsFileClose(void* file) {
    return Result(CloseHandle(file));
}

long long KTOsFileRead(void* file, void* buffer, std::size_t len) {
    std::size_t done = 0;
    while (done < len) {
        DWORD count = 0;
        const DWORD part = static_cast<DWORD>(std::min<std::size_t>(len - done, 1u << 30));
        if (!ReadFile(file, static_cast<char*>(buffer) + done, part, &count, nullptr)) {
            // A pipe ends in this way.
            if (done != 0 || GetLastError() == ERROR_BROKEN_PIPE)
                break;
            return LastResult();
        }
        if (count == 0)
            break;
        done += count;
    }
    return static_cast<long long>(done);
}

long long KTOsFileWrite(void* file, const void* data, std::size_t len) {
    std::size_t done = 0;
    while (done < len) {
        DWORD count = 0;
        const DWORD part = static_cast<DWORD>(std::min<std::size_t>(len - done, 1u << 30));
        if (!WriteFile(file, static_cast<const char*>(data) + done, part, &count, nullptr))
            return done != 0 ? static_cast<long long>(done) : LastResult();
        done += count;
    }
    return static_cast<long long>(done);
}

long long KTOsFileSeek(void* file, long long offset, int origin) {
    const DWORD native = origin == 0 ? FILE_BEGIN : origin == 1 ? FILE_CURRENT : FILE_END;
    LARGE_INTEGER distance, position;
    distance.QuadPart = offset;
    return SetFilePointerEx(file, distance, &position, native) ? position.QuadPart : LastResult();
}

long long KTOsFileSize(void* file) {
    LARGE_INTEGER size;
    return GetFileSizeEx(file, &size) ? size.QuadPart : LastResult();
}

int KTOsFileCommit(void* file) {
    return Result(FlushFileBuffers(file));
}

void* KTOsGzipOpen(const char* path, const char* mode) {
    const WidePath wide(path);
    return wide.Text() != nullptr ? gzopen_w(wide.Text(), mode) : nullptr;
}

std::FILE* KTOsTextFileOpen(const char* path) {
    const WidePath wide(path);
    return wide.Text() != nullptr ? _wfopen(wide.Text(), L"rtN") : nullptr;
}

int KTOsFileQuery(const char* path, KTOsFileStat& stat) {
    const WidePath wide(path);
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (wide.Text() == nullptr || !GetFileAttributesExW(wide.Text(), GetFileExInfoStandard, &data))
        return LastResult();
    Fill(data, stat);
    return KT_OK;
}

int KTOsFileRename(const char* from, const char* to) {
    const WidePath wideFrom(from);
    if (wideFrom.Text() == nullptr)
        return LastResult();
    const WidePath wideTo(to);
    if (wideTo.Text() == nullptr)
        return LastResult();
    return Result(MoveFileExW(wideFrom.Text(), wideTo.Text(), MOVEFILE_REPLACE_EXISTING));
}

int KTOsFileDelete(const char* path) {
    const WidePath wide(path);
    if (wide.Text() == nullptr)
        return LastResult();
    return Result(IsDirectory(wide.Text()) ? RemoveDirectoryW(wide.Text())
                                           : DeleteFileW(wide.Text()));
}

int KTOsDirectoryMake(const char* path) {
    const WidePath wide(path);
    if (wide.Text() == nullptr)
        return LastResult();
    const int result = Result(CreateDirectoryW(wide.Text(), nullptr));
    return result != KT_OK && IsDirectory(wide.Text()) ? KT_OK : result;
}

int KTOsDirectoryOpen(void*& directory, const char* path) {
    directory = nullptr;
    const WidePath wide(path, L"\\*");
    if (wide.Text() == nullptr)
        return LastResult();
    void* block = KTHeapAlloc(sizeof(OsDirectory));
    if (block == nullptr)
        return KT_NO_MEMORY;
    OsDirectory* opened = new (block) OsDirectory{};
    opened->fresh = true;
    opened->native = FindFirstFileW(wide.Text(), &opened->data);
    // The file is missing, not the path: a drive's root without entries.
    if (opened->native == INVALID_HANDLE_VALUE && GetLastError() != ERROR_FILE_NOT_FOUND) {
        const int result = LastResult();
        KTHeapFree(opened);
        return result;
    }
    directory = opened;
    return KT_OK;
}

int KTOsDirectoryNext(void* handle, char (&name)[KT_OS_NAME_BYTES]) {
    OsDirectory* directory = static_cast<OsDirectory*>(handle);
    do {
        if (!Advance(*directory))
            return GetLastError() == ERROR_NO_MORE_FILES ? KT_NOT_FOUND : KT_ERROR;
    } while (std::wcscmp(directory->data.cFileName, L".") == 0 ||
             std::wcscmp(directory->data.cFileName, L"..") == 0);
    return Result(ToUtf8(directory->data.cFileName, name, sizeof(name)));
}

int KTOsDirectoryStat(void* handle, KTOsFileStat& stat) {
    const OsDirectory* directory = static_cast<OsDirectory*>(handle);
    if (!directory->valid)
        return KT_NOT_FOUND;
    Fill(directory->data, stat);
    return KT_OK;
}

void KTOsDirectoryClose(void* handle) {
    OsDirectory* directory = static_cast<OsDirectory*>(handle);
    if (directory->native != INVALID_HANDLE_VALUE)
        FindClose(directory->native);
    KTHeapFree(directory);
}

int KTOsFixedWalk(bool (*found)(void* context, const char* root), void* context) {
    wchar_t roots[26 * 4 + 1];  // "C:\" and a NUL for each letter
    const DWORD units = GetLogicalDriveStringsW(sizeof(roots) / sizeof(roots[0]), roots);
    if (units == 0 || units >= sizeof(roots) / sizeof(roots[0]))
        return KT_ERROR;
    for (const wchar_t* root = roots; *root != 0; root += std::wcslen(root) + 1) {
        char text[16];
        if (GetDriveTypeW(root) == DRIVE_FIXED && ToUtf8(root, text, sizeof(text)) &&
            !found(context, text))
            break;
    }
    return KT_OK;
}

bool KTOsPathIsSeparator(char c) {
    return c == '/' || c == '\\';
}

bool KTOsPathFoldsCase() {
    return true;
}
