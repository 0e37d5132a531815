// The debug output's way to the attached files and streams.
#ifndef KTBASE_KTDEBUGSINKS_H
#define KTBASE_KTDEBUGSINKS_H

/// Hands length bytes of text to every attached stream and file; nothing while there is no debug
/// object. Any thread.
void KTDebugDeliver(const char* text, unsigned long long length);

#endif
