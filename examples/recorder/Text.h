// Texts that come from outside, made safe: for the screen, for file names, for HTML; and figures as
// people read them.
#ifndef KTRECORDER_TEXT_H
#define KTRECORDER_TEXT_H

#include <string>

/// The text as UTF-8 without control characters, at most maxBytes long, without blanks at its ends.
/// What is no UTF-8 becomes "?". Null gives "".
std::string CleanText(const char* text, unsigned int maxBytes);

/// Whether there is nothing but ASCII letters, digits and signs, as in a URL: no blank either.
bool IsPrintable(const std::string& text);

/// A file name made of a clean text: no separator, no "..", no name that a system keeps for a
/// device, at most 64 bytes. Never empty.
std::string SafeFileName(const std::string& text);

/// For element text and quoted attributes.
std::string EscapeHtml(const std::string& text);

std::string BytesText(unsigned long long bytes);    ///< "812 B", "1.4 MB"
std::string ClockText(unsigned long long seconds);  ///< "0:05", "1:02:03"

/// Reads digits alone, up to most. False for anything else.
bool ReadNumber(const char* text, unsigned int most, unsigned int& value);

#endif
