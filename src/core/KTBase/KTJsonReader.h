// Reads JSON text into JsonCpp's values.
#ifndef KTBASE_KTJSONREADER_H
#define KTBASE_KTJSONREADER_H

#include <json/value.h>

#include <cstddef>

/// JsonCpp keeps the length of a member's name in 30 bits.
constexpr std::size_t kKTJsonMostNameBytes = (1u << 30) - 1;

/// Reads [begin, end) as IKTJsonNode promises; false for malformed text, of which out has what was
/// read. Throws when memory is out.
///
/// JsonCpp's own reader accepts more than JSON, and converts numbers through streams: these follow
/// the program's locale, and on Windows they change it for all threads for a moment.
bool KTJsonRead(const char* begin, const char* end, Json::Value& out);

#endif
