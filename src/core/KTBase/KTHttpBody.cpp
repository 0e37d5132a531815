#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "KTBase/KTHttp.h"
#include "KTBase/KTZip.h"
#include "KTHttpText.h"
#include "KTInflater.h"
#include "KTOwnBuffer.h"

namespace {

constexpr unsigned int kChunkOverhead = 8;  // size line and CR LF of a chunk below 64 KiB
constexpr int kLeastPartBytes = 5;

const unsigned char* Bytes(const char* data) {
    return reinterpret_cast<const unsigned char*>(data);
}

bool Append(CKTString& content, const char* data, unsigned int count) {
    return KTReserve(content, count) && content.AppendDAT(Bytes(data), count) >= 0;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = KTLower(c);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// First CR LF in [begin, end), or null.
const char* FindLineEnd(const char* begin, const char* end) {
    while (end - begin > 1) {
        begin = static_cast<const char*>(
            std::memchr(begin, '\r', static_cast<std::size_t>(end - begin) - 1));
        if (begin == nullptr || begin[1] == '\n')
            return begin;
        ++begin;
    }
    return nullptr;
}

/// Reads the size line at the front of [begin, end): up to 8 hexadecimal digits, and an extension
/// behind ";". Returns what follows its CR LF; null when it is not there or does not read.
const char* ReadChunkSize(const char* begin, const char* end, unsigned int& size) {
    const char* at = std::find_if(begin, end, [](char c) { return c != ' ' && c != '\t'; });
    const char* digits = at;
    for (size = 0; at != end && at - digits < 8 && HexDigit(*at) >= 0; ++at)
        size = size << 4 | static_cast<unsigned int>(HexDigit(*at));
    if (at == digits)
        return nullptr;
    at = std::find_if(at, end, [](char c) { return c != ' ' && c != '\t'; });
    if (at == end || (*at != ';' && *at != '\r'))
        return nullptr;
    const char* lineEnd = FindLineEnd(at, end);
    if (lineEnd == nullptr || (*at == '\r' && at != lineEnd))
        return nullptr;
    return lineEnd + 2;
}

/// What the head of a part says.
struct Part {
    const char* body;
    unsigned int length;
    bool compressed;
};

/// Reads the head between the boundary and the blank line. Returns 0 while that is not there, 1, or
/// -15 without a length.
int ReadPartHead(const char* begin, const char* end, Part& part) {
    constexpr char kBlankLine[] = {'\r', '\n', '\r', '\n'};
    constexpr char kLength[] = "Content-Length:";
    const char* blank = std::search(begin, end, kBlankLine, kBlankLine + sizeof(kBlankLine));
    if (blank == end)
        return 0;
    const char* length = KTHttpFind(begin, blank, kLength);
    constexpr unsigned int kTooMuch = INT_MAX + 1u;
    if (length == nullptr ||
        !KTHttpReadNumber(length + sizeof(kLength) - 1, kTooMuch, part.length) ||
        part.length == kTooMuch)
        return KT_MALFORMED;
    part.compressed = KTHttpFind(begin, blank, "Content-Encoding: gzip") != nullptr;
    part.body = blank + sizeof(kBlankLine);
    return 1;
}

}  // namespace

/// The stream that compressed bytes go through, kept from one piece to the next.
struct CKTHTTPCommand::Inflate : IKTBaseOBJ {
    KTInflater stream{kKTGzipOrZlib};
    bool open = false;           // in the middle of a member
    unsigned long long out = 0;  // bytes made for this message
    int failure = KT_OK;         // the answer to whatever follows it
};

// ---- received ----

int CKTHTTPCommand::RecvRequest(const char* data, int length, CKTString* content) {
    const int head = m_code == 0 ? ParseRequest(data, length) : 0;
    return m_code == 0 ? head : ParseBody(data, length, head, content);
}

int CKTHTTPCommand::RecvResponse(const char* data, int length, CKTString* content) {
    const int head = m_code == 0 ? ParseResponse(data, length) : 0;
    return m_code == 0 ? head : ParseBody(data, length, head, content);
}

/// Takes the body behind the first head bytes of data. Returns the bytes taken, those included.
int CKTHTTPCommand::ParseBody(const char* data, int length, int head, CKTString* content) {
    int taken = head;
    // Parts do not count towards the length: with one of 0 they would never be looked at.
    bool first = !CKTString::IsEmpty(m_boundary) && m_code > 0;
    while (taken < length && (first || !IsCompleted())) {
        const int count =
            ParseContent(data != nullptr ? data + taken : nullptr, length - taken, content);
        if (count < 0)
            return count;
        if (count == 0)
            break;
        taken += count;
        first = false;
    }
    return taken;
}

int CKTHTTPCommand::ParseContent(const char* data, int length, CKTString* content) {
    if (data == nullptr || length < 1 || content == nullptr)
        return 0;
    if (!m_chunked)
        return CKTString::IsEmpty(m_boundary) ? ParsePlain(data, length, *content)
                                              : ParseBoundary(data, length, content);
    int taken = 0;
    while (m_chunked && taken < length) {
        const int count = ParseChunked(data + taken, length - taken, content);
        if (count < 0)
            return count;
        if (count == 0)
            break;
        taken += count;
    }
    return taken;
}

int CKTHTTPCommand::ParsePlain(const char* data, int length, CKTString& content) {
    if (m_done >= m_len)
        return 0;
    const unsigned int count = std::min(static_cast<unsigned int>(length), m_len - m_done);
    int result = TakeBody(data, count, m_gzip, content);
    if (result >= 0 && count == m_len - m_done)
        result = EndExpansion();
    if (result < 0)
        return result;
    m_done += count;
    return static_cast<int>(count);
}

int CKTHTTPCommand::ParseChunked(const char* data, int length, CKTString* content) {
    if (data == nullptr || length < 1 || content == nullptr)
        return 0;
    const char* end = data + length;
    unsigned int size = 0;
    const char* chunk = ReadChunkSize(data, end, size);
    if (chunk == nullptr)
        return 0;
    if (size == 0) {
        const int result = EndExpansion();
        if (result < 0)
            return result;
        m_chunked = false;
        return static_cast<int>(chunk - data);
    }
    const unsigned long long left = static_cast<unsigned long long>(end - chunk);
    if (left < size + 2ull || chunk[size] != '\r' || chunk[size + 1] != '\n')
        return 0;
    const int result = TakeBody(chunk, size, m_gzip && m_inflateOn, *content);
    return result < 0 ? result : static_cast<int>(chunk + size + 2 - data);
}

int CKTHTTPCommand::ParseBoundary(const char* data, int length, CKTString* content) {
    if (data == nullptr || CKTString::IsEmpty(m_boundary) || length < kLeastPartBytes)
        return 0;
    const std::size_t given = static_cast<std::size_t>(length) - 2;
    const std::size_t boundaryLength = std::strlen(m_boundary);
    if (std::memcmp(data, "--", 2) != 0 ||
        !KTEqualNoCase(data + 2, m_boundary, std::min(given, boundaryLength)))
        return KT_MALFORMED;
    if (given < boundaryLength)
        return 0;
    const char* end = data + length;
    Part part = {};
    const int read = ReadPartHead(data + 2 + boundaryLength, end, part);
    if (read < 1)
        return read;
    if (static_cast<unsigned long long>(end - part.body) < part.length)
        return 0;
    if (content != nullptr && part.length != 0) {
        int result = TakeBody(part.body, part.length, part.compressed, *content);
        if (result >= 0 && part.compressed)
            result = EndExpansion();
        if (result < 0)
            return result;
    }
    return static_cast<int>(part.body + part.length - data);
}

/// Appends bytes of a body to content. Returns 0 or more; -6; what the expansion returns.
int CKTHTTPCommand::TakeBody(const char* data, unsigned int count, bool compressed,
                             CKTString& content) {
    if (compressed && m_inflateOn)
        return Expand(data, count, content);
    if (compressed)
        return KTZIPDataUncompress(content, data, count);
    return Append(content, data, count) ? KT_OK : KT_NO_MEMORY;
}

int CKTHTTPCommand::Expand(const char* data, unsigned int count, CKTString& content) {
    if (m_inflate == nullptr)
        m_inflate = new Inflate;
    if (m_inflate == nullptr || !m_inflate->stream.IsReady()) {
        FreeInflate();
        return KT_NO_MEMORY;
    }
    if (m_inflate->failure == KT_OK)
        m_inflate->failure = ExpandPiece(data, count, content);
    return m_inflate->failure;
}

int CKTHTTPCommand::ExpandPiece(const char* data, unsigned int count, CKTString& content) {
    KTInflater& stream = m_inflate->stream;
    stream.Feed(Bytes(data), count);
    const unsigned long long most = m_maxOut != 0 ? m_maxOut : UINT_MAX;
    Bytef made[16384];
    for (bool more = true; more;) {
        if (!m_inflate->open && !stream.Restart())
            return KT_ERROR;
        unsigned int size = 0;
        const int result = stream.Expand(made, sizeof(made), Z_NO_FLUSH, size);
        if (result == Z_MEM_ERROR)
            return KT_NO_MEMORY;
        // A buffer error means that there was nothing left to do.
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
            return KT_MALFORMED;
        const unsigned int room =
            static_cast<unsigned int>(std::min<unsigned long long>(size, most - m_inflate->out));
        if (!Append(content, reinterpret_cast<const char*>(made), room))
            return KT_NO_MEMORY;
        m_inflate->out += room;
        if (room < size)
            return KT_MALFORMED;
        m_inflate->open = result != Z_STREAM_END;
        more = stream.Left() != 0 || (m_inflate->open && size == sizeof(made));
    }
    return KT_OK;
}

/// The compressed data is over. Returns 0, or what was wrong with it: cut data is malformed.
int CKTHTTPCommand::EndExpansion() {
    if (m_inflate == nullptr)
        return KT_OK;
    if (m_inflate->failure == KT_OK && m_inflate->open)
        m_inflate->failure = KT_MALFORMED;
    return m_inflate->failure;
}

void CKTHTTPCommand::FreeInflate() {
    delete m_inflate;
    m_inflate = nullptr;
}

// ---- sent ----

/// Nothing of the content has been sent yet.
void CKTHTTPCommand::RestartContent() {
    m_done = 0;
}

int CKTHTTPCommand::BuildContent(CKTString& out, const char* data, unsigned long long length) {
    if (m_chunked)
        return BuildChunked(out, data, length);
    if (data == nullptr || m_done >= m_len)
        return 0;
    const unsigned long long given = length != 0 ? length : std::strlen(data);
    const unsigned int count = static_cast<unsigned int>(std::min(
        {given, static_cast<unsigned long long>(m_len - m_done),
         static_cast<unsigned long long>(std::min<unsigned int>(out.GetSpace(), INT_MAX))}));
    if (count == 0)
        return 0;
    // An append that fills the buffer would make it larger.
    std::memmove(out.GetBuffer() + out.GetLength(), data, count);
    out.Add(static_cast<int>(count));
    m_done += count;
    return static_cast<int>(count);
}

int CKTHTTPCommand::BuildChunked(CKTString& out, const char* data, unsigned long long length) {
    const unsigned int space = std::min<unsigned int>(out.GetSpace(), INT_MAX);
    if (space < kChunkOverhead)
        return 0;
    if (data == nullptr || (length == 0 && *data == '\0')) {
        out.AppendSTR("0\r\n", 3);
        m_chunked = false;
        return 0;
    }
    const unsigned long long given = length != 0 ? length : std::strlen(data);
    const unsigned int count =
        static_cast<unsigned int>(std::min<unsigned long long>(given, space - kChunkOverhead));
    return count != 0 ? AppendChunk(out, data, count) : 0;
}

/// Appends one chunk. The caller has reckoned the room with a size line of four digits.
int CKTHTTPCommand::AppendChunk(CKTString& out, const char* data, unsigned int count) {
    char line[16];
    int lineLength = std::snprintf(line, sizeof(line), "%x\r\n", count);
    unsigned int total = static_cast<unsigned int>(lineLength) + count + 2;
    const unsigned int space = out.GetSpace();
    if (total > space) {
        const bool inside = KTLiesIn(out, data);
        const std::ptrdiff_t offset = inside ? data - out.GetBuffer() : 0;
        if (out.AllocBuffer(total) < 0) {
            count -= total - space;
            lineLength = std::snprintf(line, sizeof(line), "%x\r\n", count);
            total = static_cast<unsigned int>(lineLength) + count + 2;
        }
        data = inside ? out.GetBuffer() + offset : data;
    }
    // Written in place: an append that fills the buffer would make it larger.
    char* at = std::copy_n(line, lineLength, out.GetBuffer() + out.GetLength());
    std::memmove(at, data, count);
    std::memcpy(at + count, "\r\n", 2);
    out.Add(static_cast<int>(total));
    m_len += count;
    m_done += count;
    return static_cast<int>(count);
}
