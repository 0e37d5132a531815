#include "Console.h"

#include <KTBase/KTDebug.h>

#include <cstdarg>
#include <cstdio>
#include <filesystem>

namespace {

// Back to the line's begin and clear it; no wrapping, for a line wider than the window would be
// written anew below itself every second.
constexpr char kClearLine[] = "\r\033[K";
constexpr char kNoWrap[] = "\033[?7l";
constexpr char kWrap[] = "\033[?7h";

// Bits of KTDBG_EnablePrint. Standard output is the console's alone.
constexpr unsigned int kDecorate = 1;
constexpr unsigned int kFiles = 4;
constexpr unsigned int kAll = 7;

/// Of the devices that standard output may be, only a terminal matters. Where the system does not
/// say so under this name, progress comes line by line.
bool OutputIsTerminal() {
    std::error_code error;
    return std::filesystem::is_character_file("/dev/stdout", error);
}

}  // namespace

Console::Console() : m_isTerminal(OutputIsTerminal()) {
    KTDBG_EnablePrint(0, kAll);
}

bool Console::OpenLog(const char* path) {
    if (KTDBGInitialize() < 0)
        return false;
    if (KTDBGAttachFile(path) != KT_OK) {
        KTDBGInvalidate();
        return false;
    }
    m_log = path;
    KTDBG_EnablePrint(kDecorate | kFiles, kAll);
    return true;
}

void Console::CloseLog() {
    if (m_log.IsEmpty())
        return;
    KTDBG_EnablePrint(0, kAll);
    KTDBGDetachFile(m_log.GetBuffer());
    KTDBGInvalidate();
    m_log.Empty(false);
}

void Console::Say(int level, const char* format, ...) {
    CKTString text;
    va_list arguments;
    va_start(arguments, format);
    text.Append(&arguments, format);
    va_end(arguments);
    if (text.IsEmpty())
        return;
    KTDBG_Printf(level, "%s\n", text.GetBuffer());
    CKTGuard hold(m_lock);
    std::printf("%s%s\n", m_lineOpen ? kClearLine : "", text.GetBuffer());
    std::fflush(stdout);
    m_lineOpen = false;
}

void Console::ShowProgress(const CKTString& line) {
    if (line.IsEmpty())
        return;
    CKTGuard hold(m_lock);
    if (m_isTerminal)
        std::printf("%s%s%s%s", kClearLine, kNoWrap, line.GetBuffer(), kWrap);
    else
        std::printf("%s\n", line.GetBuffer());
    std::fflush(stdout);
    m_lineOpen = m_isTerminal;
}

void Console::EndProgress() {
    CKTGuard hold(m_lock);
    if (m_lineOpen)
        std::printf("\n");
    std::fflush(stdout);
    m_lineOpen = false;
}
