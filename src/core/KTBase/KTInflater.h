// A stream that expands compressed data, for the families that read it.
#ifndef KTBASE_KTINFLATER_H
#define KTBASE_KTINFLATER_H

#include <zlib.h>

// zlib's window bits: the largest window, and how the data is wrapped.
constexpr int kKTGzipOnly = 15 + 16;
constexpr int kKTGzipOrZlib = 15 + 32;
constexpr int kKTZlibOnly = 15;

/// An inflating stream, ended with the object.
class KTInflater {
public:
    explicit KTInflater(int windowBits) : KTInflater(windowBits, nullptr, 0) {}
    KTInflater(int windowBits, const Bytef* data, unsigned int len) : m_stream{} {
        Feed(data, len);
        m_ready = inflateInit2(&m_stream, windowBits) == Z_OK;
    }
    ~KTInflater() {
        if (m_ready)
            inflateEnd(&m_stream);
    }
    KTInflater(const KTInflater&) = delete;
    KTInflater& operator=(const KTInflater&) = delete;

    bool IsReady() const { return m_ready; }
    unsigned int Left() const { return m_stream.avail_in; }
    bool Restart() { return inflateReset(&m_stream) == Z_OK; }

    /// The data to expand next, which has to stay. What was left of the last is forgotten.
    void Feed(const Bytef* data, unsigned int len) {
        m_stream.next_in = const_cast<Bytef*>(data);  // zlib does not write there
        m_stream.avail_in = len;
    }

    /// Expands into room bytes at dst. size receives the bytes made. Returns zlib's result.
    int Expand(Bytef* dst, unsigned int room, int flush, unsigned int& size) {
        m_stream.next_out = dst;
        m_stream.avail_out = room;
        const int result = inflate(&m_stream, flush);
        size = room - m_stream.avail_out;
        return result;
    }

private:
    z_stream m_stream;
    bool m_ready;
};

#endif
