// Files and directories of the platform.
//
// Paths and names are UTF-8, never null, and go to the system as they are. Results are the
// library's codes: KT_NOT_FOUND when the path leads nowhere, KT_NO_MEMORY, KT_FULL when the medium
// is full, KT_ARGUMENT for what can be no path or position, KT_ERROR for all else.
#ifndef KTBASE_OS_KTOSFILE_H
#define KTBASE_OS_KTOSFILE_H

#include <cstddef>
#include <cstdio>

struct KTOsFileAccess {
    bool read;
    bool write;
    bool append;    // each write goes to the end of the file
    bool create;    // make the file when it is missing
    bool truncate;  // empty it
};

/// Stands for a time that the system does not keep.
constexpr long long KT_OS_NO_TIME = -0x7FFFFFFFFFFFFFFFLL - 1;

struct KTOsFileStat {
    unsigned long long sizeBytes;  // 0 for a directory
    bool directory;
    long long createdMs;  // each since 1970, UTC
    long long accessedMs;
    long long modifiedMs;
};

/// Opens for shared use; a child process does not inherit the file. A directory is refused. file
/// is never null after KT_OK, null otherwise. The position is 0, with append the end.
int KTOsFileOpen(void*& file, const char* path, const KTOsFileAccess& access);
/// Frees the handle whatever the result.
int KTOsFileClose(void* file);
/// Return the bytes done, below len only at the end of the file or the medium, or a code.
long long KTOsFileRead(void* file, void* buffer, std::size_t len);
long long KTOsFileWrite(void* file, const void* data, std::size_t len);
/// origin: 0 the begin, 1 the position, 2 the end. Returns the new position or a code.
long long KTOsFileSeek(void* file, long long offset, int origin);
long long KTOsFileSize(void* file);  ///< bytes, or a code
/// Returns when the medium has what was written.
int KTOsFileCommit(void* file);

/// Opens a gzip file with zlib, mode as zlib takes it. Null on failure.
void* KTOsGzipOpen(const char* path, const char* mode);
/// Opens a file for reading as the C runtime reads text. Null on failure.
std::FILE* KTOsTextFileOpen(const char* path);

int KTOsFileQuery(const char* path, KTOsFileStat& stat);
/// Replaces a file of the new name.
int KTOsFileRename(const char* from, const char* to);
/// A file or an empty directory.
int KTOsFileDelete(const char* path);
/// KT_OK also for a directory that is there already; KT_NOT_FOUND without its parent.
int KTOsDirectoryMake(const char* path);

/// Longest name of a directory's entry, with its NUL.
constexpr std::size_t KT_OS_NAME_BYTES = 1024;

/// Walks a directory; directory is null unless the result is KT_OK.
int KTOsDirectoryOpen(void*& directory, const char* path);
/// The next entry but for "." and "..", in the system's order. KT_NOT_FOUND when there is none.
int KTOsDirectoryNext(void* directory, char (&name)[KT_OS_NAME_BYTES]);
/// Of the entry that KTOsDirectoryNext gave last. KT_NOT_FOUND when it has gone since.
int KTOsDirectoryStat(void* directory, KTOsFileStat& stat);
void KTOsDirectoryClose(void* directory);

/// Calls found(context, root) for each fixed drive or local mount point until it returns false.
int KTOsFixedWalk(bool (*found)(void* context, const char* root), void* context);

bool KTOsPathIsSeparator(char c);
/// Whether the system takes file names in capitals and small letters for the same.
bool KTOsPathFoldsCase();

#endif
