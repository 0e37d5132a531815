#include "os/KTOsFile.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <new>

#include "KTBase/KTDefs.h"
#include "KTHeap.h"

namespace {

int LastResult() {
    switch (errno) {
        case ENOENT:
        case ENOTDIR:
            return KT_NOT_FOUND;
        case ENOMEM:
            return KT_NO_MEMORY;
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return KT_FULL;
        case EINVAL:
            return KT_ARGUMENT;
        default:
            return KT_ERROR;
    }
}

int Result(bool success) {
    return success ? KT_OK : LastResult();
}

// A handle is the descriptor plus 1, so that null is none.
int Descriptor(void* file) {
    return static_cast<int>(reinterpret_cast<std::intptr_t>(file)) - 1;
}

void* Handle(int descriptor) {
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor) + 1);
}

int OpenFlags(const KTOsFileAccess& access) {
    int flags = O_CLOEXEC | (!access.write ? O_RDONLY : access.read ? O_RDWR : O_WRONLY);
    if (access.append)
        flags |= O_APPEND;
    if (access.create)
        flags |= O_CREAT;
    if (access.truncate)
        flags |= O_TRUNC;
    return flags;
}

bool IsDirectory(int descriptor) {
    struct stat info;
    return fstat(descriptor, &info) == 0 && S_ISDIR(info.st_mode);
}

long long Milliseconds(const statx_timestamp& time) {
    return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

bool Query(int folder, const char* path, int flags, KTOsFileStat& stat) {
    struct statx info;
    if (statx(folder, path, flags, STATX_BASIC_STATS | STATX_BTIME, &info) != 0)
        return false;
    stat.directory = S_ISDIR(info.stx_mode);
    stat.sizeBytes = stat.directory ? 0 : info.stx_size;
    const bool born = (info.stx_mask & STATX_BTIME) != 0;
    stat.createdMs = born ? Milliseconds(info.stx_btime) : KT_OS_NO_TIME;
    stat.accessedMs = Milliseconds(info.stx_atime);
    stat.modifiedMs = Milliseconds(info.stx_mtime);
    return true;
}

struct OsDirectory {
    DIR* native;
    const dirent* entry;  // given last; lives in native
};

// ---- mount points ----

// The system says it of whole disks only; a partition's lies in its disk's folder.
bool IsRemovable(dev_t device) {
    for (const char* form :
         {"/sys/dev/block/%u:%u/removable", "/sys/dev/block/%u:%u/../removable"}) {
        char path[96];
        std::snprintf(path, sizeof(path), form, major(device), minor(device));
        std::FILE* file = std::fopen(path, "re");
        if (file == nullptr)
            continue;
        const int answer = std::fgetc(file);
        std::fclose(file);
        return answer == '1';
    }
    return false;
}

// The root, and directories on local disks. Loop devices hold images of programs, not data.
bool IsFixed(const mntent& mount, dev_t& device) {
    struct stat info;
    const bool root = std::strcmp(mount.mnt_dir, "/") == 0;
    const bool disk = std::strncmp(mount.mnt_fsname, "/dev/", 5) == 0 &&
                      std::strncmp(mount.mnt_fsname, "/dev/loop", 9) != 0;
    // Asked only of these: a file system of the network may not answer.
    if (!(root || disk) || stat(mount.mnt_dir, &info) != 0 || !S_ISDIR(info.st_mode))
        return false;
    device = info.st_dev;
    return root || !IsRemovable(device);
}

}  // namespace

int KTOsFileOpen(void*& file, const char* path, const KTOsFileAccess& access) {
    file = nullptr;
    int descriptor;
    do {
        descriptor = open(path, OpenFlags(access), 0666);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0)
        return LastResult();
    if (IsDirectory(descriptor)) {
        close(descriptor);
        return KT_ERROR;
    }
    if (access.append)
        lseek(descriptor, 0, SEEK_END);
    file = Handle(descriptor);
    return KT_OK;
}

int KTOsFileClose(void* file) {
    return Result(close(Descriptor(file)) == 0);
}

long long KTOsFileRead(void* file, void* buffer, std::size_t len) {
    std::size_t done = 0;
    while (done < len) {
        const ssize_t count = read(Descriptor(file), static_cast<char*>(buffer) + done, len - done);
        if (count == 0)
            break;
        if (count > 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            return done != 0 ? static_cast<long long>(done) : LastResult();
    }
    return static_cast<long long>(done);
}

long long KTOsFileWrite(void* file, const void* data, std::size_t len) {
    std::size_t done = 0;
    while (done < len) {
        const ssize_t count =
            write(Descriptor(file), static_cast<const char*>(data) + done, len - done);
        if (count >= 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            return done != 0 ? static_cast<long long>(done) : LastResult();
    }
    return static_cast<long long>(done);
}

long long KTOsFileSeek(void* file, long long offset, int origin) {
    const int native = origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END;
    const off_t position = lseek(Descriptor(file), offset, native);
    return position < 0 ? LastResult() : position;
}

long long KTOsFileSize(void* file) {
    struct stat info;
    return fstat(Descriptor(file), &info) == 0 ? info.st_size : LastResult();
}

int KTOsFileCommit(void* file) {
    return Result(fsync(Descriptor(file)) == 0);
}

void* KTOsGzipOpen(const char* path, const char* mode) {
    return gzopen(path, mode);
}

std::FILE* KTOsTextFileOpen(const char* path) {
    return std::fopen(path, "re");
}

int KTOsFileQuery(const char* path, KTOsFileStat& stat) {
    return Result(Query(AT_FDCWD, path, 0, stat));
}

int KTOsFileRename(const char* from, const char* to) {
    return Result(rename(from, to) == 0);
}

int KTOsFileDelete(const char* path) {
    return Result(remove(path) == 0);
}

int KTOsDirectoryMake(const char* path) {
    if (mkdir(path, 0777) == 0)
        return KT_OK;
    if (errno != EEXIST)
        return LastResult();
    struct stat info;
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode) ? KT_OK : KT_ERROR;
}

int KTOsDirectoryOpen(void*& directory, const char* path) {
    directory = nullptr;
    DIR* native = opendir(path);
    if (native == nullptr)
        return LastResult();
    void* block = KTHeapAlloc(sizeof(OsDirectory));
    if (block == nullptr) {
        closedir(native);
        return KT_NO_MEMORY;
    }
    directory = new (block) OsDirectory{native, nullptr};
    return KT_OK;
}

int KTOsDirectoryNext(void* handle, char (&name)[KT_OS_NAME_BYTES]) {
    static_assert(sizeof(dirent::d_name) <= KT_OS_NAME_BYTES, "name too long");
    OsDirectory* directory = static_cast<OsDirectory*>(handle);
    do {
        errno = 0;
        directory->entry = readdir(directory->native);
        if (directory->entry == nullptr)
            return errno == 0 ? KT_NOT_FOUND : KT_ERROR;
    } while (std::strcmp(directory->entry->d_name, ".") == 0 ||
             std::strcmp(directory->entry->d_name, "..") == 0);
    std::strcpy(name, directory->entry->d_name);
    return KT_OK;
}

int KTOsDirectoryStat(void* handle, KTOsFileStat& stat) {
    const OsDirectory* directory = static_cast<OsDirectory*>(handle);
    if (directory->entry == nullptr)
        return KT_NOT_FOUND;
    const int folder = dirfd(directory->native);
    const char* name = directory->entry->d_name;
    // A link that leads nowhere answers for itself.
    return Result(Query(folder, name, 0, stat) || Query(folder, name, AT_SYMLINK_NOFOLLOW, stat));
}

void KTOsDirectoryClose(void* handle) {
    OsDirectory* directory = static_cast<OsDirectory*>(handle);
    closedir(directory->native);
    KTHeapFree(directory);
}

int KTOsFixedWalk(bool (*found)(void* context, const char* root), void* context) {
    constexpr unsigned int kMostDevices = 256;
    dev_t seen[kMostDevices];
    unsigned int count = 0;
    std::FILE* table = setmntent("/proc/self/mounts", "re");
    if (table == nullptr)
        return LastResult();
    mntent mount;
    char text[8192];
    while (count < kMostDevices && getmntent_r(table, &mount, text, sizeof(text)) != nullptr) {
        if (!IsFixed(mount, seen[count]))
            continue;
        // A disk can be mounted, whole or in part, in several places: the first one counts.
        unsigned int same = 0;
        while (seen[same] != seen[count])
            ++same;
        if (same < count)
            continue;
        ++count;
        if (!found(context, mount.mnt_dir))
            break;
    }
    endmntent(table);
    return KT_OK;
}

bool KTOsPathIsSeparator(char c) {
    return c == '/';
}

bool KTOsPathFoldsCase() {
    return false;
}
