#include "KTBase/KTJson.h"

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <ostream>
#include <streambuf>
#include <string>
#include <type_traits>
#include <utility>

#include "KTBase/KTFile.h"
#include "KTJsonReader.h"
#include "KTText.h"

namespace {

constexpr unsigned short kWholeShift = 16;  // texts of whole trees grow by 64 KiB
constexpr unsigned int kChunkBytes = 16384;

/// Runs work, which returns a code, and lets no exception out. What reaches JsonCpp has been
/// checked, so it throws only where it cannot get the memory or the length it needs.
template <typename Work>
int Guarded(Work work) {
    try {
        return work();
    } catch (...) {
        return KT_NO_MEMORY;
    }
}

/// Levels of arrays and objects, of which there are at most KT_JSON_LEVELS.
unsigned int Levels(const Json::Value& value) {
    if (!value.isArray() && !value.isObject())
        return 0;
    unsigned int below = 0;
    for (const Json::Value& item : value)
        below = std::max(below, Levels(item));
    return below + 1;
}

/// Whether JSON and JsonCpp take it for a member's name.
bool IsName(const char* name) {
    const std::size_t length = std::strlen(name);
    return length <= kKTJsonMostNameBytes && KTIsUtf8(name, name + length);
}

const Json::Value& ToValue(const void* place) {
    return *static_cast<const Json::Value*>(place);
}

/// Whether there is a value at place that is() holds for: 0, -11 or -15.
int Check(const void* place, bool (Json::Value::*is)() const) {
    if (place == nullptr || ToValue(place).isNull())
        return KT_NOT_FOUND;
    return (ToValue(place).*is)() ? KT_OK : KT_MALFORMED;
}

// ---- what a node stores ----

typedef Json::Value::const_iterator Walk;

template <typename T, std::size_t size>
T& Stored(unsigned char (&store)[size]) {
    static_assert(sizeof(T) <= size && alignof(T) <= alignof(long long), "the header's room");
    return *std::launder(reinterpret_cast<T*>(store));
}

template <std::size_t size>
Json::Value& Of(unsigned char (&store)[size]) {
    return Stored<Json::Value>(store);
}

template <std::size_t size>
const Json::Value& Of(const unsigned char (&store)[size]) {
    return Stored<Json::Value>(const_cast<unsigned char(&)[size]>(store));
}

/// Replaces what out holds. Bytes are kept as they are, NULs included.
int StoreText(CKTString& out, const char* begin, std::size_t length) {
    if (length > INT_MAX)
        return KT_NO_MEMORY;
    const unsigned int count = static_cast<unsigned int>(length);
    // Room first: a string that was emptied has lost its text.
    if (count != 0 && count >= out.GetLength() + out.GetSpace() &&
        out.AllocBuffer(count - out.GetLength()) < 0)
        return KT_NO_MEMORY;
    out.Empty(false);
    out.AppendDAT(reinterpret_cast<const unsigned char*>(begin), count);
    return KT_OK;
}

// ---- writing ----

/// A stream into a string.
class StringStream : public std::streambuf {
public:
    explicit StringStream(CKTString& out) : m_out(out) {}

protected:
    int_type overflow(int_type c) override {
        const char byte = traits_type::to_char_type(c);
        return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(const char* data, std::streamsize count) override {
        const bool done = count <= INT_MAX && KTReserve(m_out, static_cast<unsigned int>(count)) &&
                          m_out.AppendDAT(reinterpret_cast<const unsigned char*>(data),
                                          static_cast<unsigned int>(count)) >= 0;
        return done ? count : 0;
    }

private:
    CKTString& m_out;
};

/// Significant digits with which value is read back the same.
unsigned int Digits(double value) {
    for (unsigned int digits = 15; digits < 17; ++digits) {
        char text[32];
        double back = 0;
        const std::to_chars_result written = std::to_chars(
            text, text + sizeof(text), value, std::chars_format::general, static_cast<int>(digits));
        std::from_chars(text, written.ptr, back);
        if (back == value)
            return digits;
    }
    return 17;
}

/// The most digits that a double of the tree needs. JsonCpp writes all with the same number.
unsigned int MostDigits(const Json::Value& value) {
    if (value.type() == Json::realValue)
        return Digits(value.asDouble());
    unsigned int digits = 15;
    if (value.isArray() || value.isObject()) {
        for (const Json::Value& item : value)
            digits = std::max(digits, MostDigits(item));
    }
    return digits;
}

int WriteText(CKTString& out, const Json::Value& value, bool indented) {
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = true;
    builder["indentation"] = indented ? "\t" : "";
    builder["enableYAMLCompatibility"] = indented;  // "name": value
    builder["precision"] = MostDigits(value);
    const std::unique_ptr<Json::StreamWriter> writer(builder.newStreamWriter());
    StringStream buffer(out);
    std::ostream stream(&buffer);
    writer->write(value, &stream);
    // Streams keep to themselves what their buffers throw.
    return stream.good() ? KT_OK : KT_NO_MEMORY;
}

// ---- files ----

int ReadFile(const char* path, CKTString& text) {
    IKWFile file;
    int result = file.Open(path, "r");
    if (result != KT_OK)
        return result;
    for (;;) {
        if (!KTReserve(text, kChunkBytes))
            return KT_NO_MEMORY;
        result = file.Read(text.GetBuffer() + text.GetLength(), kChunkBytes);
        if (result <= 0)
            return result;
        text.Add(result);
    }
}

int WriteAll(IKWFile& file, const CKTString& text) {
    for (unsigned int done = 0; done != text.GetLength();) {
        const int count = file.Write(text.GetBuffer() + done, text.GetLength() - done);
        if (count <= 0)
            return count != 0 ? count : KT_ERROR;
        done += static_cast<unsigned int>(count);
    }
    return file.Commit();
}

/// Writes aside, which then becomes path.
int ReplaceFile(const char* path, const char* aside, const CKTString& text) {
    IKWFile file;
    int result = file.Open(aside, "w");
    if (result != KT_OK)
        return result;  // what is there is not ours
    result = WriteAll(file, text);
    const int closed = file.Close();
    if (result == KT_OK)
        result = closed;
    if (result == KT_OK)
        result = KWFileRename(aside, path);
    if (result != KT_OK)
        KWFileDelete(aside);
    return result;
}

}  // namespace

/// Makes the node a value that is made of these.
template <typename... Parts>
int IKTJsonNode::Assign(Parts&&... parts) {
    return Guarded([&] {
        Json::Value made(std::forward<Parts>(parts)...);
        Of(m_value).swap(made);
        m_walking = false;
        return KT_OK;
    });
}

IKTJsonNode::IKTJsonNode() : m_walking(false), m_exchangeResult(KT_OK) {
    new (m_value) Json::Value();
}

IKTJsonNode::~IKTJsonNode() {
    static_assert(std::is_trivially_destructible<Walk>::value, "a walk is just dropped");
    Of(m_value).~Value();
}

IKTJsonNode* IKTJsonNode::Clone() const {
    IKTJsonNode* clone = new IKTJsonNode;
    if (clone != nullptr && clone->Write(*this) != KT_OK) {
        delete clone;
        clone = nullptr;
    }
    return clone;
}

void IKTJsonNode::Swap(IKTJsonNode& other) {
    Of(m_value).swap(Of(other.m_value));
    m_walking = other.m_walking = false;
}

// ---- parsing and writing ----

int IKTJsonNode::Parse(const char* text, std::size_t len) {
    if (text == nullptr)
        return KT_ARGUMENT;
    return Guarded([this, text, len] {
        Json::Value value;
        if (!KTJsonRead(text, text + (len != 0 ? len : std::strlen(text)), value))
            return KT_MALFORMED;
        Clear();
        Of(m_value).swap(value);
        return KT_OK;
    });
}

int IKTJsonNode::Load(const char* path) {
    CKTString text(0, kWholeShift);
    const int result = ReadFile(path, text);
    if (result != KT_OK)
        return result;
    return text.GetLength() != 0 ? Parse(text.GetBuffer(), text.GetLength()) : KT_MALFORMED;
}

int IKTJsonNode::ToString(CKTString& out, bool indented) const {
    // Written aside: out takes the whole tree or nothing.
    CKTString text(0, kWholeShift);
    const int result = Guarded([&] { return WriteText(text, Of(m_value), indented); });
    if (result != KT_OK)
        return result;
    return (out += text) < 0 ? KT_NO_MEMORY : KT_OK;
}

int IKTJsonNode::Save(const char* path, bool indented) const {
    if (CKTString::IsEmpty(path))
        return KT_ARGUMENT;
    CKTString text(0, kWholeShift);
    CKTString aside;
    const int result = ToString(text, indented);
    if (result != KT_OK)
        return result;
    if (text.AppendChar('\n', 1) < 0 || aside.Append("%s.new", path) < 0)
        return KT_NO_MEMORY;
    return ReplaceFile(path, aside.GetBuffer(), text);
}

// ---- what the node is ----

KTJsonType IKTJsonNode::GetType() const {
    switch (Of(m_value).type()) {
        case Json::booleanValue:
            return KT_JSON_BOOL;
        case Json::intValue:
        case Json::uintValue:
            return KT_JSON_INTEGER;
        case Json::realValue:
            return KT_JSON_DOUBLE;
        case Json::stringValue:
            return KT_JSON_TEXT;
        case Json::arrayValue:
            return KT_JSON_ARRAY;
        case Json::objectValue:
            return KT_JSON_OBJECT;
        default:
            return KT_JSON_NULL;
    }
}

unsigned int IKTJsonNode::GetCount() const {
    return Of(m_value).size();
}

void IKTJsonNode::Clear() {
    Of(m_value) = Json::Value();
    m_walking = false;
    m_exchangeResult = KT_OK;
}

int IKTJsonNode::MakeArray() {
    return Assign(Json::arrayValue);
}

int IKTJsonNode::MakeObject() {
    return Assign(Json::objectValue);
}

// ---- members and items ----

IKTJsonNode::Place IKTJsonNode::Find() const {
    return &Of(m_value);
}

IKTJsonNode::Place IKTJsonNode::Find(const char* name) const {
    const Json::Value& value = Of(m_value);
    return value.isObject() && IsName(name) ? value.find(name, name + std::strlen(name)) : nullptr;
}

IKTJsonNode::Place IKTJsonNode::FindAt(unsigned int index) const {
    const Json::Value& value = Of(m_value);
    return value.isArray() && index < value.size() ? &value[index] : nullptr;
}

bool IKTJsonNode::Has(const char* name) const {
    return name != nullptr && Find(name) != nullptr;
}

int IKTJsonNode::Put(const char* name, IKTJsonNode& item) {
    if (name == nullptr)
        return KT_ARGUMENT;
    Json::Value& value = Of(m_value);
    if (!value.isObject() && !value.isNull())
        return KT_BAD_STATE;
    if (!IsName(name) || Levels(Of(item.m_value)) >= KT_JSON_LEVELS)
        return KT_UNSUPPORTED;
    return Guarded([&] {
        Json::Value made;
        if (value.isNull())
            made = Json::Value(Json::objectValue);
        Json::Value& object = value.isNull() ? made : value;
        object[name].swap(Of(item.m_value));
        if (value.isNull())
            value.swap(made);
        m_walking = false;
        return KT_OK;
    });
}

int IKTJsonNode::PutAt(unsigned int index, IKTJsonNode& item) {
    if (FindAt(index) == nullptr)
        return KT_NOT_FOUND;
    if (Levels(Of(item.m_value)) >= KT_JSON_LEVELS)
        return KT_UNSUPPORTED;
    Of(m_value)[index].swap(Of(item.m_value));
    m_walking = false;
    return KT_OK;
}

int IKTJsonNode::PutAtEnd(IKTJsonNode& item) {
    Json::Value& value = Of(m_value);
    if (!value.isArray() && !value.isNull())
        return KT_BAD_STATE;
    if (Levels(Of(item.m_value)) >= KT_JSON_LEVELS)
        return KT_UNSUPPORTED;
    return Guarded([&] {
        Json::Value made;
        if (value.isNull())
            made = Json::Value(Json::arrayValue);
        Json::Value& array = value.isNull() ? made : value;
        array.append(Json::Value()).swap(Of(item.m_value));
        if (value.isNull())
            value.swap(made);
        m_walking = false;
        return KT_OK;
    });
}

int IKTJsonNode::Remove(const char* name) {
    if (name == nullptr)
        return KT_ARGUMENT;
    if (!Has(name))
        return KT_NOT_FOUND;
    m_walking = false;
    Of(m_value).removeMember(name);
    return KT_OK;
}

int IKTJsonNode::RemoveAt(unsigned int index) {
    if (FindAt(index) == nullptr)
        return KT_NOT_FOUND;
    m_walking = false;
    // JsonCpp's removeIndex would copy all items behind, which can fail half-way.
    Json::Value& array = Of(m_value);
    for (; index + 1 < array.size(); ++index)
        array[index].swap(array[index + 1]);
    array.resize(index);
    return KT_OK;
}

int IKTJsonNode::GetFirst(CKTString& name, IKTJsonNode& value) const {
    const Json::Value& own = Of(m_value);
    m_walking = own.isObject() || own.isArray();
    if (!m_walking)
        return KT_NOT_FOUND;
    new (m_walk) Walk(own.begin());
    return GetNext(name, value);
}

int IKTJsonNode::GetNext(CKTString& name, IKTJsonNode& value) const {
    if (!m_walking)
        return KT_BAD_STATE;
    Walk& walk = Stored<Walk>(m_walk);
    if (walk == Of(m_value).end())
        return KT_NOT_FOUND;
    return Guarded([&]() -> int {
        const char* end = nullptr;
        const char* begin = walk.memberName(&end);
        Json::Value copy(*walk);
        const int result = StoreText(name, begin, static_cast<std::size_t>(end - begin));
        if (result != KT_OK)
            return result;
        ++walk;
        Of(value.m_value).swap(copy);
        value.m_walking = false;
        return KT_OK;
    });
}

// ---- values ----

int IKTJsonNode::Read(Place place, bool& value) {
    const int result = Check(place, &Json::Value::isBool);
    if (result == KT_OK)
        value = ToValue(place).asBool();
    return result;
}

int IKTJsonNode::Read(Place place, long long& value) {
    const int result = Check(place, &Json::Value::isInt64);
    if (result == KT_OK)
        value = ToValue(place).asInt64();
    return result;
}

int IKTJsonNode::Read(Place place, unsigned long long& value) {
    const int result = Check(place, &Json::Value::isUInt64);
    if (result == KT_OK)
        value = ToValue(place).asUInt64();
    return result;
}

int IKTJsonNode::Read(Place place, double& value) {
    const int result = Check(place, &Json::Value::isNumeric);
    if (result == KT_OK)
        value = ToValue(place).asDouble();
    return result;
}

int IKTJsonNode::Read(Place place, CKTString& value) {
    const int result = Check(place, &Json::Value::isString);
    if (result != KT_OK)
        return result;
    const char* begin = nullptr;
    const char* end = nullptr;
    ToValue(place).getString(&begin, &end);
    return StoreText(value, begin, static_cast<std::size_t>(end - begin));
}

int IKTJsonNode::Read(Place place, IKTJsonNode& value) {
    if (place == nullptr)
        return KT_NOT_FOUND;
    return value.Assign(ToValue(place));
}

int IKTJsonNode::Write(bool value) {
    return Assign(value);
}

int IKTJsonNode::Write(long long value) {
    return Assign(static_cast<Json::Int64>(value));
}

int IKTJsonNode::Write(unsigned long long value) {
    return Assign(static_cast<Json::UInt64>(value));
}

int IKTJsonNode::Write(double value) {
    return std::isfinite(value) ? Assign(value) : KT_UNSUPPORTED;
}

int IKTJsonNode::Write(const char* value) {
    if (value == nullptr)
        return KT_ARGUMENT;
    return KTIsUtf8(value, value + std::strlen(value)) ? Assign(value) : KT_UNSUPPORTED;
}

int IKTJsonNode::Write(const CKTString& value) {
    const char* begin = value.GetLength() != 0 ? value.GetBuffer() : "";
    const char* end = begin + value.GetLength();
    return KTIsUtf8(begin, end) ? Assign(begin, end) : KT_UNSUPPORTED;
}

int IKTJsonNode::Write(const IKTJsonNode& value) {
    return Assign(Of(value.m_value));
}

int IKTJsonNode::GetExchangeResult() const {
    return m_exchangeResult;
}
