// What the user reads in the terminal: messages, and below them the line of progress.
#ifndef KTRECORDER_CONSOLE_H
#define KTRECORDER_CONSOLE_H

#include <KTBase/KTDefs.h>
#include <KTBase/KTLock.h>
#include <KTBase/KTString.h>

/// Levels of the debug output, which writes the messages into the log file, too.
enum Level : int { kInfo = 1, kWarning = 4, kError = 5 };

/// Writes to standard output. On a terminal the line of progress is written over and over; into a
/// file or a pipe it goes line by line. Any thread.
class Console {
public:
    Console();

    /// Begins the log file: from now on every message of the recorder and of the library goes
    /// there. False when the file cannot be written.
    bool OpenLog(const char* path);
    void CloseLog();

    bool IsTerminal() const { return m_isTerminal; }
    void Say(int level, const char* format, ...) KTBASE_PRINTF(3, 4);
    void ShowProgress(const CKTString& line);
    /// Leaves the line of progress as it stands: what comes next begins below it.
    void EndProgress();

private:
    const bool m_isTerminal;
    CKTString m_log;  // path of the log file, empty without one
    CKTMutex m_lock;  // guards the output and what stands below
    bool m_lineOpen = false;
};

#endif
