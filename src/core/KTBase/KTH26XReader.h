// Bit reader over the fields of H.264 and H.265 parameter sets.
#ifndef KTBASE_KTH26XREADER_H
#define KTBASE_KTH26XREADER_H

/// Reads from data[begin] to before data[end]; data stays the caller's. A read that meets the end
/// fails, and so does every later one. A failed read leaves its output as it was.
class KTH26XReader {
public:
    /// kSkipped: a byte 03 behind two zero bytes is emulation prevention and no data.
    enum Escapes { kSkipped, kData };

    KTH26XReader(const unsigned char* data, unsigned int begin, unsigned int end, Escapes escapes);

    bool U(unsigned int count, unsigned int& value);  ///< u(n), n up to 32.
    bool Flag(bool& value);                           ///< u(1)
    bool UE(unsigned int& value);                     ///< ue(v); fails from 32 leading zeros on.
    bool SE(int& value);                              ///< se(v)

private:
    bool Bit(unsigned int& bit);

    const unsigned char* m_data;
    unsigned int m_index;   // current byte
    unsigned int m_end;     // first byte not to be read
    unsigned int m_unread;  // bits left in the current byte
    Escapes m_escapes;
};

/// Writes an output that the caller may have left out.
template <class T>
void KTH26XPut(T* out, T value) {
    if (out != nullptr)
        *out = value;
}

#endif
