#include "Text.h"

#include <cstdio>

namespace {

constexpr unsigned int kFileNameBytes = 64;

/// Bytes of the UTF-8 character that text begins with: 0 when it is none, or a control character.
/// RFC 3629, 4: no overlong forms, no surrogates, nothing above U+10FFFF.
unsigned int CharacterBytes(const unsigned char* text) {
    const unsigned int first = text[0];
    if (first < 0x80)
        return first < 0x20 || first == 0x7F ? 0 : 1;
    unsigned int bytes = 0;
    unsigned int low = 0x80;
    unsigned int high = 0xBF;
    if (first >= 0xC2 && first <= 0xDF) {
        bytes = 2;
        low = first == 0xC2 ? 0xA0 : 0x80;  // U+0080 to U+009F are control characters
    } else if (first >= 0xE0 && first <= 0xEF) {
        bytes = 3;
        low = first == 0xE0 ? 0xA0 : 0x80;
        high = first == 0xED ? 0x9F : 0xBF;
    } else if (first >= 0xF0 && first <= 0xF4) {
        bytes = 4;
        low = first == 0xF0 ? 0x90 : 0x80;
        high = first == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (text[1] < low || text[1] > high)
        return 0;
    for (unsigned int i = 2; i < bytes; ++i)
        if ((text[i] & 0xC0) != 0x80)  // the terminator, too
            return 0;
    return bytes;
}

/// The longest part of text that fits and ends between two characters.
std::string Shorten(const std::string& text, std::size_t maxBytes) {
    if (text.size() <= maxBytes)
        return text;
    std::size_t end = maxBytes;
    while (end > 0 && (text[end] & 0xC0) == 0x80)
        --end;
    return text.substr(0, end);
}

/// What a shell, a URL and every file system take as it is. Letters beyond ASCII stay.
bool IsPlain(unsigned int c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
           c == '_' || c == '.' || c >= 0x80;
}

bool IsDeviceName(const std::string& name) {
    std::string stem = name.substr(0, name.find('.'));
    for (char& c : stem)
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    for (const char* const device : {"CON", "PRN", "AUX", "NUL"})
        if (stem == device)
            return true;
    return stem.size() == 4 && (stem.compare(0, 3, "COM") == 0 || stem.compare(0, 3, "LPT") == 0) &&
           stem[3] >= '0' && stem[3] <= '9';
}

}  // namespace

std::string CleanText(const char* text, unsigned int maxBytes) {
    std::string clean;
    const unsigned char* at = reinterpret_cast<const unsigned char*>(text != nullptr ? text : "");
    while (*at != 0 && clean.size() <= maxBytes) {
        const unsigned int bytes = CharacterBytes(at);
        if (bytes == 0)
            clean += '?';
        else
            clean.append(reinterpret_cast<const char*>(at), bytes);
        at += bytes == 0 ? 1 : bytes;
    }
    clean = Shorten(clean, maxBytes);
    const std::size_t first = clean.find_first_not_of(' ');
    if (first == std::string::npos)
        return "";
    return clean.substr(first, clean.find_last_not_of(' ') - first + 1);
}

bool IsPrintable(const std::string& text) {
    for (const char c : text)
        if (c <= ' ' || c > '~')
            return false;
    return true;
}

std::string SafeFileName(const std::string& text) {
    std::string name = Shorten(text, kFileNameBytes - 1);
    for (char& c : name)
        if (!IsPlain(static_cast<unsigned char>(c)))
            c = '_';
    for (std::size_t at = 0; (at = name.find("..", at)) != std::string::npos;)
        name.replace(at, 2, "__");
    if (!name.empty() && name.front() == '.')
        name.front() = '_';
    if (!name.empty() && name.back() == '.')
        name.back() = '_';
    if (name.empty())
        return "camera";
    return IsDeviceName(name) ? "_" + name : name;
}

std::string EscapeHtml(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

std::string BytesText(unsigned long long bytes) {
    static const char* const units[] = {"B", "KB", "MB", "GB", "TB", "PB", "EB"};
    unsigned int unit = 0;
    double value = static_cast<double>(bytes);
    while (value >= 1000.0) {
        value /= 1000.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text;
}

std::string ClockText(unsigned long long seconds) {
    const unsigned int minute = static_cast<unsigned int>(seconds / 60 % 60);
    const unsigned int second = static_cast<unsigned int>(seconds % 60);
    char text[40];
    if (seconds >= 3600)
        std::snprintf(text, sizeof(text), "%llu:%02u:%02u", seconds / 3600, minute, second);
    else
        std::snprintf(text, sizeof(text), "%u:%02u", minute, second);
    return text;
}

bool ReadNumber(const char* text, unsigned int most, unsigned int& value) {
    unsigned long long number = 0;
    if (*text == 0)
        return false;
    for (; *text != 0; ++text) {
        if (*text < '0' || *text > '9')
            return false;
        number = number * 10 + static_cast<unsigned int>(*text - '0');
        if (number > most)
            return false;
    }
    value = static_cast<unsigned int>(number);
    return true;
}
