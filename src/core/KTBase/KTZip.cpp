#include "KTBase/KTZip.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include "KTBase/KTFile.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"
#include "KTInflater.h"
#include "KTOwnBuffer.h"
#include "os/KTOsFile.h"

namespace {

int MapError(int zlibResult) {
    switch (zlibResult) {
        case Z_BUF_ERROR:
            return KT_BAD_STATE;
        case Z_MEM_ERROR:
            return KT_NO_MEMORY;
        default:
            return KT_ERROR;
    }
}

bool Reserve(CKTString& out, unsigned long long bytes) {
    return bytes <= INT_MAX && out.AllocBuffer(static_cast<unsigned int>(bytes)) >= 0;
}

/// Makes room for bytes more, and for as much as out has already where that can be had and is not
/// above most: growing by single rounds would copy a long text once per round.
bool Grow(CKTString& out, unsigned int bytes, unsigned int most) {
    if (out.GetSpace() > bytes)
        return true;
    const unsigned int doubled = std::min(out.GetLength(), most);
    return (doubled > bytes && Reserve(out, doubled)) || Reserve(out, bytes);
}

Bytef* End(const CKTString& out) {
    return reinterpret_cast<Bytef*>(out.GetBuffer()) + out.GetLength();
}

/// The caller's data; a copy of it where it lies in out, whose buffer is about to move.
class Source {
public:
    Source(const CKTString& out, const void* data, std::size_t len)
        : m_data(static_cast<const Bytef*>(data)), m_copy(nullptr) {
        if (!KTLiesIn(out, data) || len == 0)
            return;
        m_copy = ZMKMalloc(len);
        m_data = m_copy;
        if (m_copy != nullptr)
            std::memcpy(m_copy, data, len);
    }
    ~Source() { ZMKFree(m_copy); }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// Null when there was no memory for the copy.
    const Bytef* Data() const { return m_data; }

private:
    const Bytef* m_data;
    unsigned char* m_copy;
};

/// Length of data, taken up to its NUL for len below 0.
std::size_t TextLength(const char* data, int len) {
    return len < 0 ? std::strlen(data) : static_cast<std::size_t>(len);
}

int DeflateOver(CKTString& out, z_stream& stream, const Bytef* data, unsigned int len) {
    const uLong bound = deflateBound(&stream, len);
    if (bound == 0)
        return KT_OK;
    if (!Reserve(out, bound))
        return KT_NO_MEMORY;
    stream.next_in = const_cast<Bytef*>(data);  // zlib does not write there
    stream.avail_in = len;
    // At the start of the buffer, not at its end: callers pass an empty string.
    Bytef* begin = reinterpret_cast<Bytef*>(out.GetBuffer());
    stream.next_out = begin;
    stream.avail_out = static_cast<uInt>(bound);
    const int result = deflate(&stream, Z_FINISH);
    if (result != Z_STREAM_END) {
        *End(out) = 0;
        return result == Z_OK ? static_cast<int>(KT_OK) : MapError(result);
    }
    // Of a string that was not empty, what neither it nor the data has filled.
    const std::size_t size = stream.total_out, oldLength = out.GetLength();
    std::memset(begin + std::max(size, oldLength), 0, std::min(size, oldLength));
    out.Add(static_cast<int>(size));
    return KT_OK;
}

int ExpandAll(CKTString& out, const Bytef* data, unsigned int len, unsigned int limit) {
    KTInflater stream(kKTGzipOrZlib, data, len);
    if (!stream.IsReady())
        return KT_NO_MEMORY;
    Bytef chunk[16384];
    for (;;) {
        unsigned int size = 0;
        const int result = stream.Expand(chunk, sizeof(chunk), Z_NO_FLUSH, size);
        if (result == Z_MEM_ERROR)
            return KT_NO_MEMORY;
        if (result != Z_OK && result != Z_STREAM_END)
            return KT_MALFORMED;
        const unsigned int room = limit - out.GetLength();
        if (size > room)
            return KT_FULL;
        if (!Grow(out, size, room) || out.AppendDAT(chunk, size) < 0)
            return KT_NO_MEMORY;
        if (result == Z_STREAM_END && stream.Left() == 0)
            return KT_OK;
        if (result == Z_STREAM_END && !stream.Restart())
            return KT_ERROR;
    }
}

// ---- files ----

int FileError(gzFile file) {
    int code = Z_OK;
    gzerror(file, &code);
    return MapError(code);
}

bool IsEmpty(const char* text) {
    return text == nullptr || *text == 0;
}

/// Buffer that files are copied through.
class Chunk {
public:
    Chunk() : m_text(0, 5) { m_text.AllocBuffer(4096); }
    char* Data() { return m_text.GetBuffer(); }  ///< null when memory is out
    unsigned int Size() const { return m_text.Size(); }

private:
    CKTString m_text;
};

int CopyToGzip(IKWFile& source, gzFile gzip) {
    Chunk chunk;
    if (chunk.Data() == nullptr)
        return KT_NO_MEMORY;
    for (;;) {
        const int count = source.Read(chunk.Data(), chunk.Size());
        if (count < 1)
            return count == 0 ? KT_OK : KT_ERROR;
        if (gzwrite(gzip, chunk.Data(), static_cast<unsigned int>(count)) != count)
            return KT_ERROR;
    }
}

int CopyFromGzip(gzFile gzip, IKWFile& destination) {
    Chunk chunk;
    if (chunk.Data() == nullptr)
        return KT_NO_MEMORY;
    for (;;) {
        const int count = gzread(gzip, chunk.Data(), chunk.Size());
        if (count < 1)
            return count == 0 ? KT_OK : KT_ERROR;
        if (destination.Write(chunk.Data(), static_cast<unsigned int>(count)) != count)
            return KT_ERROR;
    }
}

}  // namespace

unsigned int KTZIPDataChecksum(unsigned int checksum, const void* data, unsigned int len) {
    return static_cast<unsigned int>(adler32(checksum, static_cast<const Bytef*>(data), len));
}

int KTZIPDataCompress(CKTString& out, const char* data, int len) {
    if (data == nullptr)
        return KT_ARGUMENT;
    const std::size_t length = TextLength(data, len);
    if (length > INT_MAX)
        return KT_ARGUMENT;
    const Source source(out, data, length);
    const uLong bound = compressBound(static_cast<uLong>(length));
    if (bound == 0)
        return 0;
    if (source.Data() == nullptr || !Reserve(out, bound))
        return KT_NO_MEMORY;
    uLongf size = bound;
    const int result = compress(End(out), &size, source.Data(), static_cast<uLong>(length));
    if (result != Z_OK) {
        *End(out) = 0;
        return MapError(result);
    }
    out.Add(static_cast<int>(size));
    return static_cast<int>(length);
}

int KTGZIPDataCompress(CKTString& out, const char* data, unsigned int len) {
    if (data == nullptr)
        return KT_ARGUMENT;
    const std::size_t length = TextLength(data, static_cast<int>(len));
    if (length > INT_MAX)
        return KT_ARGUMENT;
    const Source source(out, data, length);
    if (source.Data() == nullptr)
        return KT_NO_MEMORY;
    z_stream stream = {};
    // Any zlib of this generation will do, not only the one whose header was compiled in.
    const int opened =
        deflateInit2_(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kKTGzipOnly, MAX_MEM_LEVEL,
                      Z_DEFAULT_STRATEGY, "1.2.11", static_cast<int>(sizeof(stream)));
    if (opened != Z_OK)
        return MapError(opened);
    const int result = DeflateOver(out, stream, source.Data(), static_cast<unsigned int>(length));
    const int ended = deflateEnd(&stream);
    return result == KT_OK && ended != Z_OK ? static_cast<int>(KT_ERROR) : result;
}

int KTGZIPDataUncompress(CKTString& out, const void* data, unsigned int len) {
    const Source source(out, data, len);
    out.Empty(true);
    if (data == nullptr)
        return KT_ARGUMENT;
    KTInflater stream(kKTGzipOnly, source.Data(), len);
    if (source.Data() == nullptr || !stream.IsReady())
        return KT_NO_MEMORY;
    Bytef chunk[1024];
    unsigned int size = 0;
    // To be finished in one go: callers rely on -15 for whatever is larger than the chunk.
    if (stream.Expand(chunk, sizeof(chunk), Z_FINISH, size) != Z_STREAM_END)
        return KT_MALFORMED;
    out.AppendDAT(chunk, size);
    return static_cast<int>(out.GetLength());
}

int KTZIPDataUncompress(CKTString& out, const void* data, unsigned int len) {
    if (data == nullptr || len == 0)
        return 0;
    constexpr unsigned int kRoundBytes = 128;
    const Source source(out, data, len);
    if (source.Data() == nullptr || !Reserve(out, 2ull * len))
        return KT_NO_MEMORY;
    KTInflater stream(kKTZlibOnly, source.Data(), len);
    if (!stream.IsReady())
        return KT_NO_MEMORY;
    int result = Z_OK;
    while (result != Z_STREAM_END && stream.Left() != 0) {
        unsigned int size = 0;
        if (!Grow(out, kRoundBytes, INT_MAX))
            return KT_NO_MEMORY;
        result = stream.Expand(End(out), kRoundBytes, Z_SYNC_FLUSH, size);
        if (result != Z_OK && result != Z_STREAM_END) {
            *End(out) = 0;
            return KT_MALFORMED;
        }
        out.Add(static_cast<int>(size));
    }
    return static_cast<int>(len);
}

int KTGZIPDataUncompressAll(CKTString& out, const void* data, unsigned int len,
                            unsigned int maxOut) {
    const Source source(out, data, len);
    out.Empty(true);
    if (data == nullptr)
        return KT_ARGUMENT;
    if (source.Data() == nullptr)
        return KT_NO_MEMORY;
    const unsigned int limit = maxOut == 0 || maxOut > INT_MAX ? INT_MAX : maxOut;
    const int result = ExpandAll(out, source.Data(), len, limit);
    if (result == KT_OK)
        return static_cast<int>(out.GetLength());
    out.Empty(true);
    return result;
}

void* KTZIPFileOpen(const char* path, const char* mode) {
    return IsEmpty(path) || mode == nullptr ? nullptr : KTOsGzipOpen(path, mode);
}

int KTZIPFileClose(void* handle) {
    if (handle == nullptr)
        return KT_NO_HANDLE;
    const int result = gzclose(static_cast<gzFile>(handle));
    return result == Z_OK ? static_cast<int>(KT_OK) : MapError(result);
}

int KTZIPFileWrite(void* handle, const void* data, unsigned int len) {
    if (handle == nullptr)
        return KT_NO_HANDLE;
    if (data == nullptr || len > INT_MAX)
        return KT_ARGUMENT;
    const gzFile file = static_cast<gzFile>(handle);
    const int count = gzwrite(file, data, len);
    return count > 0 || len == 0 ? count : FileError(file);
}

int KTZIPFileRead(void* handle, void* buffer, unsigned int len) {
    if (handle == nullptr)
        return KT_NO_HANDLE;
    if (buffer == nullptr || len > INT_MAX)
        return KT_ARGUMENT;
    const gzFile file = static_cast<gzFile>(handle);
    const int count = gzread(file, buffer, len);
    return count >= 0 ? count : FileError(file);
}

int KTZIPFileCompress(const char* sourcePath, const char* gzipPath) {
    if (IsEmpty(sourcePath) || IsEmpty(gzipPath))
        return KT_ARGUMENT;
    const std::unique_ptr<IKWFile> source(new IKWFile);
    if (source == nullptr)
        return KT_UNSUPPORTED;
    const int opened = source->Open(sourcePath, "rb");
    if (opened != KT_OK)
        return opened;
    void* gzip = KTOsGzipOpen(gzipPath, "wb");
    if (gzip == nullptr)
        return KT_ERROR;
    const int result = CopyToGzip(*source, static_cast<gzFile>(gzip));
    // Closing writes the stream's end: a full medium may show only now.
    const int closed = KTZIPFileClose(gzip);
    return result == KT_OK && closed != KT_OK ? static_cast<int>(KT_ERROR) : result;
}

int KTZIPFileUncompress(const char* gzipPath, const char* destinationPath) {
    if (IsEmpty(gzipPath) || IsEmpty(destinationPath))
        return KT_ARGUMENT;
    void* gzip = KTOsGzipOpen(gzipPath, "rb");
    if (gzip == nullptr)
        return KT_NOT_FOUND;
    const std::unique_ptr<IKWFile> destination(new IKWFile);
    int result = destination != nullptr ? destination->Open(destinationPath, "w+")
                                        : static_cast<int>(KT_UNSUPPORTED);
    if (result == KT_OK) {
        result = CopyFromGzip(static_cast<gzFile>(gzip), *destination);
        if (destination->Close() != KT_OK && result == KT_OK)
            result = KT_ERROR;
    }
    KTZIPFileClose(gzip);
    return result;
}
