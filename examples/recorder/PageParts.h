// What of the page never changes: its style and its script.
#ifndef KTRECORDER_PAGEPARTS_H
#define KTRECORDER_PAGEPARTS_H

extern const char* const kPageStyle;
extern const char* const kPageScript;

#endif
