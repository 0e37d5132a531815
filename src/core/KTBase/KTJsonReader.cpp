#include "KTJsonReader.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>
#include <system_error>

#include "KTBase/KTJson.h"
#include "KTText.h"

namespace {

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
constexpr unsigned int kNoCodeUnit = 0x10000;

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// Value of the four hexadecimal digits at text, or kNoCodeUnit.
unsigned int ParseCodeUnit(const char* text, const char* end) {
    unsigned int unit = 0;
    if (end - text < 4)
        return kNoCodeUnit;
    const std::from_chars_result result = std::from_chars(text, text + 4, unit, 16);
    return result.ptr == text + 4 ? unit : kNoCodeUnit;
}

void AppendUtf8(std::string& out, unsigned int point) {
    if (point < 0x80) {
        out += static_cast<char>(point);
        return;
    }
    const int more = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
    const unsigned int lead = more == 1 ? 0xC0 : more == 2 ? 0xE0 : 0xF0;
    out += static_cast<char>(lead | point >> (6 * more));
    for (int i = more - 1; i >= 0; --i)
        out += static_cast<char>(0x80 | (point >> (6 * i) & 0x3F));
}

/// One function per element of the grammar, named as RFC 8259 names them. Each reads from m_at on
/// and leaves it behind the element.
class Reader {
public:
    Reader(const char* begin, const char* end) : m_at(begin), m_end(end) {}

    bool ReadAll(Json::Value& out) {
        if (!ReadValue(out, 0))
            return false;
        SkipSpace();
        return m_at == m_end;
    }

private:
    bool ReadValue(Json::Value& out, unsigned int level) {
        SkipSpace();
        switch (m_at != m_end ? *m_at : '\0') {
            case '{':
                return level < KT_JSON_LEVELS && ReadObject(out, level + 1);
            case '[':
                return level < KT_JSON_LEVELS && ReadArray(out, level + 1);
            case '"':
                if (!ReadString())
                    return false;
                out = Json::Value(m_text);
                return true;
            case 't':
                out = true;
                return Skip("true");
            case 'f':
                out = false;
                return Skip("false");
            case 'n':
                out = Json::Value();
                return Skip("null");
            default:
                return ReadNumber(out);
        }
    }

    bool ReadObject(Json::Value& out, unsigned int level) {
        out = Json::Value(Json::objectValue);
        ++m_at;
        if (SkipNext('}'))
            return true;
        do {
            SkipSpace();
            if (!ReadString() || m_text.size() > kKTJsonMostNameBytes ||
                m_text.find('\0') != std::string::npos)
                return false;
            const Json::ArrayIndex members = out.size();
            Json::Value& member = out[m_text];
            const bool isNew = out.size() != members;
            if (!isNew || !SkipNext(':') || !ReadValue(member, level))
                return false;
        } while (SkipNext(','));
        return SkipNext('}');
    }

    bool ReadArray(Json::Value& out, unsigned int level) {
        out = Json::Value(Json::arrayValue);
        ++m_at;
        if (SkipNext(']'))
            return true;
        do {
            if (!ReadValue(out.append(Json::Value()), level))
                return false;
        } while (SkipNext(','));
        return SkipNext(']');
    }

    /// Decodes it into m_text.
    bool ReadString() {
        if (!SkipChar('"'))
            return false;
        m_text.clear();
        for (;;) {
            const char* plain = m_at;
            while (m_at != m_end && *m_at != '"' && *m_at != '\\' &&
                   static_cast<unsigned char>(*m_at) >= 0x20)
                ++m_at;
            if (!KTIsUtf8(plain, m_at))
                return false;
            m_text.append(plain, m_at);
            if (SkipChar('"'))
                return true;
            if (!SkipChar('\\') || !ReadEscape())
                return false;
        }
    }

    /// What stands behind the backslash.
    bool ReadEscape() {
        static constexpr char kLetters[] = "\"\\/bfnrt";
        static constexpr char kMeant[] = "\"\\/\b\f\n\r\t";
        if (SkipChar('u'))
            return ReadCodePoint();
        const char* letter =
            m_at != m_end && *m_at != '\0' ? std::strchr(kLetters, *m_at) : nullptr;
        if (letter == nullptr)
            return false;
        m_text += kMeant[letter - kLetters];
        ++m_at;
        return true;
    }

    bool ReadCodePoint() {
        unsigned int point = ParseCodeUnit(m_at, m_end);
        if (point == kNoCodeUnit)
            return false;
        m_at += 4;
        if (point >= 0xD800 && point < 0xE000) {
            if (!SkipChar('\\') || !SkipChar('u'))
                return false;
            const unsigned int low = ParseCodeUnit(m_at, m_end);
            if (point >= 0xDC00 || low < 0xDC00 || low >= 0xE000)
                return false;
            m_at += 4;
            point = 0x10000 + ((point - 0xD800) << 10) + (low - 0xDC00);
        }
        AppendUtf8(m_text, point);
        return true;
    }

    bool ReadNumber(Json::Value& out) {
        const char* begin = m_at;
        SkipChar('-');
        if (!SkipChar('0') && !SkipDigits())
            return false;
        bool integer = true;
        if (SkipChar('.')) {
            integer = false;
            if (!SkipDigits())
                return false;
        }
        if (SkipChar('e') || SkipChar('E')) {
            integer = false;
            if (!SkipChar('+'))
                SkipChar('-');
            if (!SkipDigits())
                return false;
        }
        return (integer &&
                (Convert<Json::UInt64>(begin, out) || Convert<Json::Int64>(begin, out))) ||
               Convert<double>(begin, out);
    }

    /// False when T cannot hold the number from begin to m_at.
    template <typename T>
    bool Convert(const char* begin, Json::Value& out) {
        T value = 0;
        if (std::from_chars(begin, m_at, value).ec != std::errc())
            return false;
        out = value;
        return true;
    }

    void SkipSpace() {
        while (m_at != m_end && (*m_at == ' ' || *m_at == '\t' || *m_at == '\n' || *m_at == '\r'))
            ++m_at;
    }
    bool SkipChar(char c) {
        if (m_at == m_end || *m_at != c)
            return false;
        ++m_at;
        return true;
    }
    /// Behind white space.
    bool SkipNext(char c) {
        SkipSpace();
        return SkipChar(c);
    }
    bool SkipDigits() {
        const char* begin = m_at;
        m_at = std::find_if_not(m_at, m_end, IsDigit);
        return m_at != begin;
    }
    bool Skip(const char* word) {
        while (*word != '\0' && SkipChar(*word))
            ++word;
        return *word == '\0';
    }

    const char* m_at;
    const char* m_end;
    std::string m_text;
};

}  // namespace

bool KTJsonRead(const char* begin, const char* end, Json::Value& out) {
    const std::size_t markBytes = sizeof(kByteOrderMark) - 1;
    if (static_cast<std::size_t>(end - begin) >= markBytes &&
        std::memcmp(begin, kByteOrderMark, markBytes) == 0)
        begin += markBytes;
    return Reader(begin, end).ReadAll(out);
}
