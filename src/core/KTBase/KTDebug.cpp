#include "KTBase/KTDebug.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "KTBase/KTObject.h"
#include "KTBase/KTTime.h"
#include "KTDebugSinks.h"
#include "KTLibrary.h"
#include "KTText.h"

namespace {

constexpr unsigned int kDecorate = 1;
constexpr unsigned int kConsole = 2;
constexpr unsigned int kSinks = 4;
constexpr unsigned int kLevels = 6;
constexpr int kNote = 2;

struct LevelText {
    const char* name;
    const char* colour;
};
constexpr char kPlain[] = "\x1b[0m";
constexpr LevelText kLevelTexts[kLevels] = {
    {"DEF", kPlain},       {"INFO", "\x1b[0;32m"}, {"NOTE", kPlain},
    {"DBG", "\x1b[0;35m"}, {"WARN", "\x1b[1;35m"}, {"ERR", "\x1b[1;31m"},
};

// Words of their own: a message that meets a change goes by the old or the new one.
std::atomic<unsigned int> g_levelMask{(1u << kLevels) - 1};
std::atomic<unsigned int> g_printMask{kDecorate | kConsole | kSinks};
std::atomic<unsigned long long> g_moduleMask{~0ull};
std::atomic<unsigned int> g_printfFlag{~0u};

template <class T>
T Update(std::atomic<T>& mask, T value, T select) {
    T old = mask.load(std::memory_order_relaxed);
    T changed;
    do {
        changed = (old & ~select) | (value & select);
    } while (!mask.compare_exchange_weak(old, changed, std::memory_order_relaxed));
    return changed;
}

// The print mask for a message of this level; 0 when nothing is to be printed.
unsigned int PrintMaskFor(int level) {
    if ((g_levelMask.load(std::memory_order_relaxed) >> (level & 31) & 1) == 0)
        return 0;
    const unsigned int print = g_printMask.load(std::memory_order_relaxed);
    return print >= kConsole ? print : 0;
}

bool IsModuleOn(int module) {
    return (g_moduleMask.load(std::memory_order_relaxed) >> (module & 63) & 1) != 0;
}

// Room for one message, on the stack while it is short: so "no memory" can still be said.
class Room {
public:
    Room() = default;
    ~Room() { ZMKFree(m_long); }
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

    char* GetShort() { return m_short; }
    /// Null when memory is out; the short room then still holds what was written there.
    char* Reserve(std::size_t bytes) {
        if (bytes <= sizeof(m_short))
            return m_short;
        m_long = reinterpret_cast<char*>(ZMKMalloc(bytes));
        return m_long;
    }

    static constexpr std::size_t kShortBytes = 1024;

private:
    char m_short[kShortBytes];
    char* m_long = nullptr;
};

// ---- decoration ----

// Stores what fits into room bytes and counts everything, as snprintf does: so a short message
// takes one pass over its text, a long one two and one allocation.
struct Writer {
    char* out;
    std::size_t room;
    std::size_t length = 0;

    void Put(const char* bytes, std::size_t count) {
        if (length + count <= room)
            std::memcpy(out + length, bytes, count);
        length += count;
    }
    void PutSpaces(std::size_t count) {
        if (length + count <= room)
            std::memset(out + length, ' ', count);
        length += count;
    }
};

struct Prefix {
    char text[96];
    std::size_t length;
};

Prefix MakePrefix(int module, int level) {
    const LevelText none = {"", ""};
    const LevelText& shown = level < static_cast<int>(kLevels) ? kLevelTexts[level] : none;
    CKTTime now(true);
    now.FillCurrentTime(false);
    Prefix prefix;
    prefix.length = static_cast<std::size_t>(std::snprintf(
        prefix.text, sizeof(prefix.text), "%s[%02u:%02u:%02u.%03u][%02d:%s]%s ", shown.colour,
        now.GetHour(), now.GetMinute(), now.GetSecond(), now.GetMS(), module, shown.name, kPlain));
    return prefix;
}

bool IsBreak(char c) {
    return c == '\r' || c == '\n';
}

// Behind the break that ends the line, or end. CR LF and LF CR are one break.
const char* LineEnd(const char* at, const char* end) {
    while (at != end && !IsBreak(*at))
        ++at;
    if (at == end)
        return end;
    const char first = *at++;
    return at != end && IsBreak(*at) && *at != first ? at + 1 : at;
}

// Returns the bytes that text takes decorated, its terminator included; out holds them if they fit.
std::size_t Decorate(const Prefix& prefix, const char* text, std::size_t length, char* out,
                     std::size_t room) {
    Writer writer{out, room};
    const char* const end = text + length;
    writer.Put(prefix.text, prefix.length);
    for (const char* line = text; line != end;) {
        if (line != text)
            writer.PutSpaces(prefix.length);
        const char* next = LineEnd(line, end);
        writer.Put(line, static_cast<std::size_t>(next - line));
        line = next;
    }
    if (!IsBreak(end[-1]))
        writer.Put("\n", 1);
    writer.Put("", 1);
    return writer.length;
}

// ---- output ----

int Result(std::size_t length) {
    return static_cast<int>(std::min<std::size_t>(length, INT_MAX));
}

void WriteConsole(const char* text, std::size_t length) {
    std::fwrite(text, 1, length, stdout);
    std::fflush(stdout);
}

// For text that no NUL ends. Without memory the debugger gets its beginning.
void WriteDebuggerCopy(const char* text, std::size_t length) {
    Room room;
    char* copy = room.Reserve(length + 1);
    if (copy == nullptr) {
        copy = room.GetShort();
        length = Room::kShortBytes - 1;
    }
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    KTDebuggerWrite(copy);
}

// The sinks and the caller get length as it was given, 0 included.
int OutputPlain(unsigned int print, const char* text, unsigned int length) {
    if ((print & kConsole) != 0) {
        if (length == 0) {
            WriteConsole(text, std::strlen(text));
            KTDebuggerWrite(text);
        } else {
            const std::size_t shown = KTTextLength(text, length);
            WriteConsole(text, shown);
            WriteDebuggerCopy(text, shown);
        }
    }
    if ((print & kSinks) != 0)
        KTDebugDeliver(text, length);
    return Result(length);
}

int OutputDecorated(unsigned int print, int module, int level, const char* text,
                    unsigned int length) {
    const std::size_t bytes = length != 0 ? length : std::strlen(text);
    if (bytes == 0)
        return 0;
    const Prefix prefix = MakePrefix(module, level);
    Room room;
    char* out = room.GetShort();
    const std::size_t needed = Decorate(prefix, text, bytes, out, Room::kShortBytes);
    if (needed > Room::kShortBytes) {
        out = room.Reserve(needed);
        if (out == nullptr)
            return OutputPlain(print, text, length);  // rather bare than lost
        Decorate(prefix, text, bytes, out, needed);
    }
    if ((print & kConsole) != 0) {
        WriteConsole(out, std::strlen(out));  // up to a NUL inside text, which the sinks do get
        KTDebuggerWrite(out);
    }
    if ((print & kSinks) != 0)
        KTDebugDeliver(out, needed - 1);
    return Result(needed - 1);
}

int Print(int module, int level, const char* format, va_list args) KTBASE_PRINTF(3, 0);

int Print(int module, int level, const char* format, va_list args) {
    if (format == nullptr)
        return 0;
    va_list again;
    va_copy(again, args);
    Room room;
    char* text = room.GetShort();
    int length = std::vsnprintf(text, Room::kShortBytes, format, args);
    if (length >= static_cast<int>(Room::kShortBytes)) {
        const std::size_t bytes = static_cast<std::size_t>(length) + 1;
        if (char* all = room.Reserve(bytes)) {
            text = all;
            length = std::vsnprintf(text, bytes, format, again);
        } else {
            length = static_cast<int>(Room::kShortBytes) - 1;
        }
    }
    va_end(again);
    if (length < 0)
        return KT_ERROR;
    return length == 0 ? 0 : DBG_Output(module, level, text, static_cast<unsigned int>(length));
}

}  // namespace

void KTFault(const char* source, const char* function, int line) {
    KTPrintf("%s====>(Func = %s, line = %d)\n", source, function, line);
}

int KTDBG_Output(int level, const char* text, unsigned int length) {
    return DBG_Output(0, level, text, length);
}

int KTDBG_Printf(int level, const char* format, ...) {
    if (PrintMaskFor(level) == 0)
        return 0;
    va_list args;
    va_start(args, format);
    const int delivered = Print(0, level, format, args);
    va_end(args);
    return delivered;
}

int KTDBGOutput(const char* text, unsigned int length) {
    return KTDBG_Output(0, text, length);
}

int KTDBGPrintf(const char* format, ...) {
    if (PrintMaskFor(0) == 0)
        return 0;
    va_list args;
    va_start(args, format);
    const int delivered = Print(0, 0, format, args);
    va_end(args);
    return delivered;
}

int KTPrintf(const char* format, ...) {
    if (PrintMaskFor(kNote) == 0)
        return 0;
    va_list args;
    va_start(args, format);
    const int delivered = Print(0, kNote, format, args);
    va_end(args);
    return delivered;
}

unsigned int KTDBG_SetLevelMask(unsigned int value, unsigned int select) {
    return Update(g_levelMask, value, select);
}

unsigned int KTDBG_EnablePrint(unsigned int value, unsigned int select) {
    return Update(g_printMask, value, select);
}

int KTDBGEnablePrintf(unsigned int flag) {
    g_printfFlag.store(flag, std::memory_order_relaxed);
    return KT_OK;
}

int DBG_LevelEnable(unsigned int level) {
    if (level >= kLevels)
        return KT_ERROR;
    Update(g_levelMask, ~0u, 1u << level);
    return KT_OK;
}

int DBG_LevelDisable(unsigned int level) {
    if (level >= kLevels)
        return KT_ERROR;
    Update(g_levelMask, 0u, 1u << level);
    return KT_OK;
}

int DBG_ModuleEnable(int module) {
    Update(g_moduleMask, ~0ull, 1ull << (module & 63));
    return KT_OK;
}

int DBG_ModuleDisable(int module) {
    Update(g_moduleMask, 0ull, 1ull << (module & 63));
    return KT_OK;
}

int DBG_Output(int module, int level, const char* text, unsigned int length) {
    level = std::max(level, 0);
    const unsigned int print = text != nullptr ? PrintMaskFor(level) : 0;
    if (print == 0)
        return 0;
    return (print & kDecorate) != 0 ? OutputDecorated(print, module, level, text, length)
                                    : OutputPlain(print, text, length);
}

int DBG_Printf(int module, int level, const char* format, ...) {
    if (PrintMaskFor(level) == 0 || !IsModuleOn(module))
        return 0;
    va_list args;
    va_start(args, format);
    const int delivered = Print(module, level, format, args);
    va_end(args);
    return delivered;
}
