// Files: reading and writing, file information, directory search.
#ifndef KTBASE_KTFILE_H
#define KTBASE_KTFILE_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"
#include "KTBase/KTTime.h"

struct KTOsFileStat;

// Paths and names are UTF-8 on every system. Where nothing else is said a call returns 0 or
// -4: null or empty path, or one the system cannot read as such;
// -6: no memory;
// -8: the medium is full;
// -11: the path leads nowhere;
// -1: all else, access denied among it.

/// Where IKWFile::Seek counts from.
enum KWSeekOrigin : int {
    KW_SEEK_BEGIN = 0,
    KW_SEEK_CURRENT = 1,
    KW_SEEK_END = 2,
};

/// File, read and written as bytes as they are, without a buffer: what was written is seen by
/// other readers at once. Closed by the destructor. Belongs to one thread at a time.
class KTBASE_API IKWFile : public IKTBaseOBJ {
public:
    IKWFile();
    IKWFile(const IKWFile&) = delete;
    IKWFile& operator=(const IKWFile&) = delete;
    ~IKWFile() override;

    /// mode: "r" reads a file that exists, "w" writes a new or emptied file, "a" appends to a new
    /// or existing one, at whose end the position then is; "r+", "w+" and "a+" read and write. A
    /// "b" is accepted anywhere behind the first letter and changes nothing.
    /// Others may read, write, rename and delete the file meanwhile. Also -4 for a null mode, -10
    /// for another one, -7 when a file is open already, which then stays. A directory gives -1.
    int Open(const char* path, const char* mode);
    /// -7 when none is open. Otherwise the file is closed, whatever the result.
    int Close();
    bool IsOpen() const;

    /// Returns the bytes read: fewer than len only at the end or in front of an error, which the
    /// next call tells; 0 at the end. -4 for a null buffer or len above 0x7FFFFFFF, -7 when no file
    /// is open, -1 when it is not open for reading or cannot be read.
    int Read(void* buffer, unsigned int len);
    /// Returns the bytes written: fewer than len only in front of an error, which the next call
    /// tells. Codes as Read has them, and -8 when the medium is full.
    int Write(const void* data, unsigned int len);

    /// origin: a KWSeekOrigin, else -10. Returns the new position, which may lie beyond the end:
    /// the gap reads as zeroes once something is written there. -4 in front of the begin: the
    /// position stays. -7 when no file is open, -1 when it has no positions (a pipe).
    long long Seek(long long offset, int origin);
    long long Tell();     ///< The position, or as Seek.
    long long GetSize();  ///< Bytes, or -7, -1.

    /// Returns when the medium has everything written so far. For files open for writing; -7 when
    /// none is open.
    int Commit();

private:
    void* m_handle;
};

/// What the system tells of a file or directory, as of the last Query. Times are UTC; the null
/// time where the system keeps none or where it lies outside 2000 to 2063.
class KTBASE_API IKWFileInfo : public IKTBaseOBJ {
public:
    IKWFileInfo();

    /// After a failure Exists is false and everything else empty.
    int Query(const char* path);

    bool Exists() const;
    bool IsDirectory() const;
    unsigned long long GetSize() const;  ///< bytes, 0 for a directory
    const CKTTime& GetCreateTime() const;
    const CKTTime& GetAccessTime() const;
    const CKTTime& GetModifyTime() const;

private:
    friend class IKWFileFind;
    void Clear();
    void Fill(const KTOsFileStat& stat);

    bool m_exists;
    bool m_directory;
    unsigned long long m_sizeBytes;
    CKTTime m_created;
    CKTTime m_accessed;
    CKTTime m_modified;
};

/// Walks the entries of one directory, "." and ".." left out, in the system's order. Entries made
/// or deleted meanwhile may or may not be met. Belongs to one thread at a time.
class KTBASE_API IKWFileFind : public IKTBaseOBJ {
public:
    IKWFileFind();
    IKWFileFind(const IKWFileFind&) = delete;
    IKWFileFind& operator=(const IKWFileFind&) = delete;
    ~IKWFileFind() override;

    /// Starts a walk, ending one that runs. pattern: '*' stands for any characters, '?' for one;
    /// null or empty for all entries. It is matched against the whole name; on Windows capital and
    /// small ASCII letters are the same.
    int Open(const char* directory, const char* pattern);
    /// Goes to the next entry. -11 when there is none left, -7 without a walk.
    int Next();
    void Close();

    /// Of the current entry, borrowed until the next call of Open, Next or Close: its name, its
    /// name behind the directory's, and what the system tells of it. Null and empty without one.
    const char* GetName() const;
    const char* GetPath() const;
    const IKWFileInfo& GetInfo() const;

private:
    int Take(const char* name);

    void* m_handle;
    CKTString m_folder;  // with a separator behind it
    CKTString m_pattern;
    CKTString m_path;
    unsigned int m_nameAt;  // of the name in m_path; 0 without an entry
    IKWFileInfo m_info;
};

/// Appends the roots of the fixed drives ("C:\") or the mount points of the local disks to out,
/// each with a NUL behind it. Returns their number, -6 or -1.
KTBASE_API int KWFileFindFixed(CKTString& out);

/// Replaces a file that has the new name. Both names must lie on one drive or file system.
KTBASE_API int KWFileRename(const char* from, const char* to);

/// Deletes a file or an empty directory.
KTBASE_API int KWFileDelete(const char* path);

/// Makes a directory with the parents that are missing. 0 also when it is there already.
KTBASE_API int KWFileMakeDirectory(const char* path);

#endif
