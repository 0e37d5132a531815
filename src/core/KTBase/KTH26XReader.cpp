#include "KTH26XReader.h"

KTH26XReader::KTH26XReader(const unsigned char* data, unsigned int begin, unsigned int end,
                           Escapes escapes)
    : m_data(data),
      m_index(begin < end ? begin : end),
      m_end(end),
      m_unread(begin < end ? 8 : 0),
      m_escapes(escapes) {}

bool KTH26XReader::U(unsigned int count, unsigned int& value) {
    unsigned int bits = 0;
    for (unsigned int i = 0; i < count; ++i) {
        unsigned int bit = 0;
        if (!Bit(bit))
            return false;
        bits = bits << 1 | bit;
    }
    value = bits;
    return true;
}

bool KTH26XReader::Flag(bool& value) {
    unsigned int bit = 0;
    if (!Bit(bit))
        return false;
    value = bit != 0;
    return true;
}

bool KTH26XReader::UE(unsigned int& value) {
    unsigned int zeros = 0;
    unsigned int bit = 0;
    while (zeros < 32 && Bit(bit) && bit == 0)
        ++zeros;
    unsigned int offset = 0;
    if (bit == 0 || !U(zeros, offset))
        return false;
    value = (1u << zeros) - 1 + offset;
    return true;
}

bool KTH26XReader::SE(int& value) {
    unsigned int code = 0;
    if (!UE(code))
        return false;
    const long long half = (code + 1LL) >> 1;
    value = static_cast<int>(code % 2 != 0 ? half : -half);
    return true;
}

bool KTH26XReader::Bit(unsigned int& bit) {
    if (m_unread == 0 && m_index < m_end) {
        ++m_index;
        if (m_escapes == kSkipped && m_index < m_end && m_index >= 2 && m_data[m_index] == 3 &&
            m_data[m_index - 1] == 0 && m_data[m_index - 2] == 0)
            ++m_index;
        m_unread = 8;
    }
    if (m_index >= m_end) {
        m_unread = 0;
        return false;
    }
    --m_unread;
    bit = m_data[m_index] >> m_unread & 1;
    return true;
}
