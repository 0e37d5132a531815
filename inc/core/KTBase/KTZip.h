// Compression: zlib and gzip data in memory, gzip files.
#ifndef KTBASE_KTZIP_H
#define KTBASE_KTZIP_H

#include "KTBase/KTDefs.h"

class CKTString;

// Where nothing else is said the calls return -4 for missing data, -6 when memory is out or out
// cannot grow, -1 for any other failure, and leave out as it was then. data may lie in out's own
// buffer. Any thread; a handle belongs to one thread at a time.

/// Adler-32 of data, continued from checksum; 1 starts one, and is what null data gives.
KTBASE_API unsigned int KTZIPDataChecksum(unsigned int checksum, const void* data,
                                          unsigned int len);

/// Appends data in zlib format; len below 0: up to its NUL. Returns the length of data, not of what
/// was appended. -7 when zlib has too little room.
KTBASE_API int KTZIPDataCompress(CKTString& out, const char* data, int len);

/// Writes data in gzip format over the start of out, whose length then grows by the size written:
/// out should be empty. len of 2^31 and more: up to its NUL. Returns 0, or -7 as above.
KTBASE_API int KTGZIPDataCompress(CKTString& out, const char* data, unsigned int len);

/// Expands one gzip member of at most 1024 bytes into out, whose old content is freed in any case.
/// Returns the expanded length. -15 for corrupt or cut data and for a longer content: small answers
/// are all that is taken this way, see KTGZIPDataUncompressAll. What out cannot take is dropped.
KTBASE_API int KTGZIPDataUncompress(CKTString& out, const void* data, unsigned int len);

/// Appends what data in zlib format expands to. Returns len, also when data is cut or has more
/// behind its end; 0 for null data or len 0. -15 for corrupt data: what was expanded before is then
/// in out, as it is after -6.
KTBASE_API int KTZIPDataUncompress(CKTString& out, const void* data, unsigned int len);

/// Expands gzip data (all members, one behind the other) or zlib data of any size into out, whose
/// old content is freed in any case. maxOut: most bytes taken, 0 for no limit.
/// Returns the expanded length. -8 beyond maxOut, and beyond 0x7FFFFFFF; -15 for corrupt or cut
/// data, data without anything, or anything else behind its end. out is empty after a failure.
KTBASE_API int KTGZIPDataUncompressAll(CKTString& out, const void* data, unsigned int len,
                                       unsigned int maxOut);

/// Opens a gzip file; path is UTF-8, mode as zlib's gzopen takes it ("rb", "wb9"...). Reading a
/// file that is no gzip file gives its bytes. Null on failure. Close it with KTZIPFileClose.
KTBASE_API void* KTZIPFileOpen(const char* path, const char* mode);
/// Writes what is left and closes, whatever the result: 0; -5 for null; -7 when the file read ended
/// in the middle of a member; -6, -1.
KTBASE_API int KTZIPFileClose(void* handle);
/// Returns the bytes written. -5 for a null handle, -4 for null data or len above 0x7FFFFFFF, -1
/// also when the file is open for reading.
KTBASE_API int KTZIPFileWrite(void* handle, const void* data, unsigned int len);
/// Returns the bytes read, 0 at the end. Codes as KTZIPFileWrite; -1 for corrupt data.
KTBASE_API int KTZIPFileRead(void* handle, void* buffer, unsigned int len);

/// Copies a plain file into a new gzip file. Returns 0; -4 for a null or empty path; -10 without
/// memory for the file object; what IKWFile::Open says of the source; -1 when the gzip file cannot
/// be opened or written, or the source not be read. A gzip file begun stays as far as it came.
KTBASE_API int KTZIPFileCompress(const char* sourcePath, const char* gzipPath);
/// Expands a gzip file into a plain file, made or emptied. Returns 0; -4 and -10 as above; -11 when
/// the gzip file cannot be opened; what IKWFile::Open says of the other; -1 for corrupt data and
/// when the plain file cannot be written. A gzip file cut short expands as far as it goes: 0.
KTBASE_API int KTZIPFileUncompress(const char* gzipPath, const char* destinationPath);

#endif
