#include "KTBase/KTXml.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "KTBase/KTDebug.h"
#include "KTOwnBuffer.h"
#include "KTText.h"
#include "os/KTOsFile.h"

namespace {

// Parsing, writing and searching call themselves once a level.
constexpr unsigned int kMostLevels = 1000;
constexpr unsigned int kListBlock = 10;
constexpr unsigned short kWholeShift = 16;  // texts of whole trees grow by 64 KiB

struct Entity {
    char c;
    const char* text;
    const char* written;  // by MakeXMLString
};

constexpr Entity kEntities[] = {
    {'&', "&amp;", "&amp"},    {'<', "&lt;", "&lt;"},      {'>', "&gt;", "&gt;"},
    {'"', "&quot;", "&quot;"}, {'\'', "&apos;", "&apos;"},
};

// ---- texts ----

/// No name equals an empty one.
bool EqualNoCase(const char* name, const char* other, std::size_t length) {
    return name != nullptr && length != 0 && std::strlen(name) == length &&
           KTEqualNoCase(name, other, length);
}

/// False without memory: the old text stays. The new one may lie in it.
bool Store(char*& slot, const char* begin, const char* end) {
    char* copy = KTCopyRange(begin, static_cast<std::size_t>(end - begin));
    if (copy == nullptr)
        return false;
    ZMKFree(slot);
    slot = copy;
    return true;
}

int StoreOptional(char*& slot, const char* text) {
    if (text != nullptr)
        return Store(slot, text, text + std::strlen(text)) ? KT_OK : KT_NO_MEMORY;
    ZMKFree(slot);
    slot = nullptr;
    return KT_OK;
}

bool BeginsWith(const char* begin, const char* end, const char* prefix) {
    const std::size_t length = std::strlen(prefix);
    return static_cast<std::size_t>(end - begin) >= length &&
           std::memcmp(begin, prefix, length) == 0;
}

const char* SkipSpaces(const char* begin, const char* end) {
    return std::find_if(begin, end, [](char c) { return c != ' '; });
}

bool Put(CKTString& out, std::initializer_list<const char*> texts) {
    return std::all_of(texts.begin(), texts.end(),
                       [&out](const char* text) { return out.AppendSTR(text, 0) >= 0; });
}

std::size_t WrittenLength(const Entity* entity) {
    return entity != nullptr ? std::strlen(entity->written) : 1;
}

const Entity* FindEntity(char c) {
    for (const Entity& entity : kEntities) {
        if (entity.c == c)
            return &entity;
    }
    return nullptr;
}

/// Decodes element text into out, which has room for all of it. Returns the new end.
char* Decode(char* out, const char* begin, const char* end) {
    while (begin != end) {
        const char c = *begin;
        const char* next = begin + 1;
        if (c == '&') {
            for (const Entity& entity : kEntities) {
                if (BeginsWith(begin, end, entity.text)) {
                    *out++ = entity.c;
                    next = begin + std::strlen(entity.text);
                    break;
                }
            }
        } else if (c != '\t' && c != '\n' && c != '\r') {
            *out++ = c;
        }
        begin = next;
    }
    return out;
}

// ---- tags ----

const char* FindByte(const char* begin, const char* end, char c) {
    return begin == end ? nullptr
                        : static_cast<const char*>(
                              std::memchr(begin, c, static_cast<std::size_t>(end - begin)));
}

/// Next tag that is neither a declaration nor a comment. 0, or -1 when no complete one is left.
int FindXmlItem(tag_XMLTXT& cursor, tag_XMLTXT& item) {
    for (;;) {
        const char* open = FindByte(cursor.begin, cursor.end, '<');
        const char* close = open != nullptr ? FindByte(open, cursor.end, '>') : nullptr;
        if (close == nullptr)
            return KT_ERROR;
        item = {open, close + 1};
        cursor.begin = item.end;
        if (!BeginsWith(item.begin, item.end, "<?xml") && !BeginsWith(item.begin, item.end, "<!"))
            return KT_OK;
    }
}

// A tag has at least its two brackets.
bool IsClosing(const tag_XMLTXT& item) {
    return item.begin[1] == '/';
}

bool IsSelfClosing(const tag_XMLTXT& item) {
    return item.end[-2] == '/';
}

// ---- files ----

int ReadText(std::FILE* file, CKTString& text) {
    unsigned char chunk[1000];
    std::size_t count = 0;
    while ((count = std::fread(chunk, 1, sizeof(chunk), file)) != 0) {
        if (text.AppendDAT(chunk, static_cast<unsigned int>(count)) < 0)
            return KT_ERROR;
    }
    return std::ferror(file) != 0 ? KT_ERROR : KT_OK;
}

int ReadTextFile(const char* path, CKTString& text) {
    std::FILE* file = KTOsTextFileOpen(path);
    if (file == nullptr)
        return KT_ERROR;
    const int result = ReadText(file, text);
    std::fclose(file);
    return result;
}

// ---- list items ----

void* ToItem(IKTBaseOBJ* object) {
    return object;
}

CKTXmlNode* ToNode(void* item) {
    return static_cast<CKTXmlNode*>(static_cast<IKTBaseOBJ*>(item));
}

CKTXmlAttr* ToAttr(void* item) {
    return static_cast<CKTXmlAttr*>(static_cast<IKTBaseOBJ*>(item));
}

}  // namespace

// ---- CKTXmlAttr ----

CKTXmlAttr::CKTXmlAttr() : m_name(nullptr), m_value(nullptr) {}

CKTXmlAttr::CKTXmlAttr(const char* name, const char* value)
    : m_name(CKTString::Clone(name, 0)), m_value(CKTString::Clone(value, 0)) {}

CKTXmlAttr::~CKTXmlAttr() {
    ZMKFree(m_name);
    ZMKFree(m_value);
}

const char* CKTXmlAttr::GetName() const {
    return m_name;
}

const char* CKTXmlAttr::GetValue() const {
    return m_value;
}

int CKTXmlAttr::Parse(const char* begin, const char* end) {
    if (begin == nullptr || end == nullptr || begin >= end)
        return KT_ERROR;
    begin = SkipSpaces(begin, end);
    const char* equals = FindByte(begin, end, '=');
    if (equals == nullptr)
        return KT_ERROR;
    const char* value = equals + 1;
    if (value != end && *value == '"') {
        ++value;
        end = std::find(value, end, '"');
    } else {
        while (end != value && end[-1] == ' ')
            --end;
    }
    // Both copied before either is freed: the range may lie in them.
    char* newName = nullptr;
    char* newValue = nullptr;
    if (!Store(newName, begin, equals) || !Store(newValue, value, end)) {
        ZMKFree(newName);
        return KT_ERROR;
    }
    ZMKFree(m_name);
    ZMKFree(m_value);
    m_name = newName;
    m_value = newValue;
    return KT_OK;
}

int CKTXmlAttr::ToString(CKTString& out) const {
    if (m_name == nullptr || m_value == nullptr)
        return KT_ERROR;
    return out.Append(" %s=\"%s\"", m_name, m_value) < 0 ? KT_ERROR : KT_OK;
}

bool CKTXmlAttr::operator==(const char* name) const {
    return !CKTString::IsEmpty(m_name) && !CKTString::IsEmpty(name) &&
           std::strcmp(m_name, name) == 0;
}

// ---- CKTXmlNode ----

CKTXmlNode::CKTXmlNode() : CKTXmlNode(nullptr) {}

CKTXmlNode::CKTXmlNode(CKTXmlNode* parent)
    : m_name(nullptr),
      m_prefix(nullptr),
      m_value(nullptr),
      m_parent(parent),
      m_children(kListBlock),
      m_attrs(kListBlock),
      m_attached(false) {}

CKTXmlNode::~CKTXmlNode() {
    Clear();
}

void CKTXmlNode::Dump() {
    CKTString text;
    ToString(text);
}

void CKTXmlNode::Clear() {
    // Leaf by leaf: a program may have built a tree too deep for destructors that call each other.
    CKTXmlNode* node = this;
    for (;;) {
        if (CKTXmlNode* child = ToNode(node->m_children.GetAtHead())) {
            node = child;
            continue;
        }
        if (node == this)
            break;
        CKTXmlNode* parent = node->m_parent;
        parent->m_children.RemoveHead();
        delete node;
        node = parent;
    }
    m_attrs.RemoveAll();
    for (char** text : {&m_name, &m_prefix, &m_value}) {
        ZMKFree(*text);
        *text = nullptr;
    }
}

// ---- parsing ----

CKTXmlNode* CKTXmlNode::ParseXml(const char* text, std::size_t len) {
    if (text == nullptr)
        return nullptr;
    tag_XMLTXT cursor = {text, text + (len != 0 ? len : std::strlen(text))};
    tag_XMLTXT item = {};
    if (FindXmlItem(cursor, item) != KT_OK)
        return nullptr;
    CKTXmlNode* root = new CKTXmlNode;
    if (root != nullptr)
        root->Parse(cursor, item, 1);  // what a malformed text has given so far is wanted, too
    return root;
}

int CKTXmlNode::Load(const char* path) {
    CKTString text(0, kWholeShift);
    if (CKTString::IsEmpty(path) || ReadTextFile(path, text) != KT_OK)
        return KT_ERROR;
    Clear();
    tag_XMLTXT cursor = {text.GetBuffer(), text.GetBuffer() + text.GetLength()};
    tag_XMLTXT item = {};
    return FindXmlItem(cursor, item) != KT_OK ? KT_ERROR : Parse(cursor, item, 1);
}

/// item: the opening tag, cursor behind it. A child leaves both behind the tag after its element.
int CKTXmlNode::Parse(tag_XMLTXT& cursor, tag_XMLTXT& item, unsigned int level) {
    if (level > kMostLevels || item.begin == item.end || IsClosing(item))
        return KT_ERROR;
    const bool selfClosing = IsSelfClosing(item);
    if (ParseHead(item.begin + 1, item.end - (selfClosing ? 2 : 1)) != KT_OK)
        return KT_ERROR;
    if (!selfClosing && ParseContent(cursor, item, level) != KT_OK)
        return KT_ERROR;
    // A child looks for the next tag even where its parent's end is missing: the parent then drops
    // it with the error, so that a cut file does not pass for a whole one.
    return m_parent != nullptr ? FindXmlItem(cursor, item) : KT_OK;
}

/// Reads up to the closing tag, which item then is.
int CKTXmlNode::ParseContent(tag_XMLTXT& cursor, tag_XMLTXT& item, unsigned int level) {
    const char* content = item.end;
    if (FindXmlItem(cursor, item) != KT_OK)
        return KT_ERROR;
    if (IsClosing(item))
        return ParseValue(content, item.begin);
    do {
        CKTXmlNode* child = new CKTXmlNode(this);
        if (child == nullptr)
            return KT_ERROR;
        if (child->Parse(cursor, item, level + 1) != KT_OK || !AttachChild(child)) {
            delete child;
            return KT_ERROR;
        }
    } while (!IsClosing(item));
    return KT_OK;
}

/// The tag without its brackets and its closing '/'. An empty name or prefix is none.
int CKTXmlNode::ParseHead(const char* begin, const char* end) {
    const char* nameEnd = std::find(begin, end, ' ');
    const char* colon = std::find(begin, nameEnd, ':');
    const char* name = colon != nameEnd ? colon + 1 : begin;
    if ((name != begin && colon != begin && !Store(m_prefix, begin, colon)) ||
        (name != nameEnd && !Store(m_name, name, nameEnd)))
        return KT_ERROR;
    for (const char* attr = SkipSpaces(nameEnd, end);; attr = SkipSpaces(attr, end)) {
        const char* equals = FindByte(attr, end, '=');
        if (equals == nullptr)
            return KT_OK;
        const char* value = equals + 1;
        const bool quoted = value != end && *value == '"';
        const char* attrEnd = std::find(quoted ? value + 1 : value, end, quoted ? '"' : ' ');
        if (ParseAttr(attr, attrEnd) != KT_OK)
            return KT_ERROR;
        attr = quoted && attrEnd != end ? attrEnd + 1 : attrEnd;
    }
}

int CKTXmlNode::ParseAttr(const char* begin, const char* end) {
    CKTXmlAttr* attr = new CKTXmlAttr;
    if (attr == nullptr)
        return KT_ERROR;
    // The range has its '=', so only missing memory can fail here.
    if (attr->Parse(begin, end) == KT_OK && m_attrs.AddTail(ToItem(attr)) != nullptr)
        return KT_OK;
    delete attr;
    return KT_ERROR;
}

int CKTXmlNode::ParseValue(const char* begin, const char* end) {
    if (begin == end)
        return KT_OK;
    char* value = KTCopyRange(begin, static_cast<std::size_t>(end - begin));
    if (value == nullptr)
        return KT_ERROR;
    char* valueEnd = Decode(value, begin, end);
    *valueEnd = '\0';
    if (valueEnd == value) {
        ZMKFree(value);
        return KT_OK;
    }
    ZMKFree(m_value);
    m_value = value;
    return KT_OK;
}

// ---- writing ----

int CKTXmlNode::ToString(CKTString& out) const {
    // Written aside: out takes the whole tree or nothing.
    CKTString text(0, kWholeShift);
    if (CKTString::IsEmpty(m_name) || !Write(text, 1) || (out += text) < 0)
        return KT_ERROR;
    return KT_OK;
}

bool CKTXmlNode::Write(CKTString& out, unsigned int level) const {
    if (level > kMostLevels)
        return false;
    if (CKTString::IsEmpty(m_name))
        return true;
    const bool hasPrefix = !CKTString::IsEmpty(m_prefix);
    const char* const prefix = hasPrefix ? m_prefix : "";
    const char* const colon = hasPrefix ? ":" : "";
    if (!Put(out, {"<", prefix, colon, m_name}))
        return false;
    void* pos = nullptr;
    for (const CKTXmlAttr* attr = GetFirstAttr(pos); attr != nullptr; attr = GetNextAttr(pos)) {
        if (attr->GetName() != nullptr && attr->GetValue() != nullptr &&
            attr->ToString(out) != KT_OK)
            return false;
    }
    if (m_value == nullptr && m_children.IsEmpty())
        return Put(out, {"/>\n"});
    if (!Put(out, {">\n"}) || (m_value != nullptr && !Put(out, {m_value, "\n"})))
        return false;
    for (const CKTXmlNode* child = m_value == nullptr ? GetFirstChild(pos) : nullptr;
         child != nullptr; child = GetNextChild(pos)) {
        if (!child->Write(out, level + 1))
            return false;
    }
    return Put(out, {"</", prefix, colon, m_name, ">\n"});
}

bool CKTXmlNode::MakeXMLString(CKTString& out, const char* text, int len) {
    if (text == nullptr)
        return false;
    const std::size_t length = len < 0 ? std::strlen(text) : static_cast<std::size_t>(len);
    unsigned long long needed = 0;
    for (std::size_t i = 0; i < length; ++i)
        needed += WrittenLength(FindEntity(text[i]));
    const unsigned long long room =
        std::min<unsigned long long>(std::max(needed, 2ULL * length), INT_MAX);
    const bool own = KTLiesIn(out, text);
    const std::size_t offset = own ? static_cast<std::size_t>(text - out.GetBuffer()) : 0;
    if (needed > room || (out.AllocBuffer(static_cast<unsigned int>(room)) < 0 &&
                          out.AllocBuffer(static_cast<unsigned int>(needed)) < 0)) {
        KTFault("src/core/KTBase/KTXml", "CKTXmlNode::MakeXMLString", 450);
        return true;
    }
    if (own)
        text = out.GetBuffer() + offset;
    char* end = out.GetBuffer() + out.GetLength();
    for (std::size_t i = 0; i < length; ++i) {
        const char c = text[i];
        const Entity* entity = FindEntity(c);
        end = std::copy_n(entity != nullptr ? entity->written : &c, WrittenLength(entity), end);
    }
    out.Add(static_cast<int>(needed));
    return true;
}

// ---- content ----

const char* CKTXmlNode::GetName() const {
    return m_name;
}

const char* CKTXmlNode::GetPrefix() const {
    return m_prefix;
}

const char* CKTXmlNode::GetValue() const {
    return m_value;
}

CKTXmlNode* CKTXmlNode::GetParent() const {
    return m_parent;
}

int CKTXmlNode::SetName(const char* name) {
    return StoreOptional(m_name, name);
}

int CKTXmlNode::SetPrefix(const char* prefix) {
    return StoreOptional(m_prefix, prefix);
}

int CKTXmlNode::SetValue(const char* value) {
    return StoreOptional(m_value, value);
}

int CKTXmlNode::AddChild(CKTXmlNode* child) {
    if (child == nullptr || child->m_attached)
        return KT_ERROR;
    for (const CKTXmlNode* node = this; node != nullptr;
         node = node->m_attached ? node->m_parent : nullptr) {
        if (node == child)
            return KT_ERROR;
    }
    return AttachChild(child) ? KT_OK : KT_ERROR;
}

bool CKTXmlNode::AttachChild(CKTXmlNode* child) {
    if (m_children.AddTail(ToItem(child)) == nullptr)
        return false;
    child->m_parent = this;
    child->m_attached = true;
    return true;
}

CKTXmlNode* CKTXmlNode::GetFirstChild(void*& pos) const {
    pos = m_children.GetHead();
    return ToNode(m_children.GetAt(pos));
}

CKTXmlNode* CKTXmlNode::GetNextChild(void*& pos) const {
    pos = m_children.GetNext(pos);
    return ToNode(m_children.GetAt(pos));
}

CKTXmlNode* CKTXmlNode::GetChild(void*& pos, const char* name) const {
    const std::size_t length = name != nullptr ? std::strlen(name) : 0;
    CKTXmlNode* child = pos != nullptr ? ToNode(m_children.GetAt(pos)) : GetFirstChild(pos);
    while (child != nullptr && !EqualNoCase(child->m_name, name, length))
        child = GetNextChild(pos);
    return child;
}

int CKTXmlNode::AddAttr(const char* name, const char* value, bool append) {
    if (CKTString::IsEmpty(name) || CKTString::IsEmpty(value) || CKTString::IsEmpty(m_name))
        return KT_ERROR;
    CKTXmlAttr* attr = new CKTXmlAttr(name, value);
    if (attr == nullptr)
        return KT_ERROR;
    if (attr->GetName() != nullptr && attr->GetValue() != nullptr &&
        (append ? m_attrs.AddTail(ToItem(attr)) : m_attrs.AddHead(ToItem(attr))) != nullptr)
        return KT_OK;
    delete attr;
    return KT_ERROR;
}

CKTXmlAttr* CKTXmlNode::FindAttr(const char* name) const {
    void* pos = nullptr;
    CKTXmlAttr* attr = GetFirstAttr(pos);
    while (attr != nullptr && !(*attr == name))
        attr = GetNextAttr(pos);
    return attr;
}

CKTXmlAttr* CKTXmlNode::GetFirstAttr(void*& pos) const {
    pos = m_attrs.GetHead();
    return ToAttr(m_attrs.GetAt(pos));
}

CKTXmlAttr* CKTXmlNode::GetNextAttr(void*& pos) const {
    pos = m_attrs.GetNext(pos);
    return ToAttr(m_attrs.GetAt(pos));
}

// ---- search ----

CKTXmlNode* CKTXmlNode::GetFirstNode(const char* name) const {
    return GetFirstNode(name, 1);
}

CKTXmlNode* CKTXmlNode::GetFirstNode(const char* name, unsigned int level) const {
    if (level >= kMostLevels)
        return nullptr;
    void* pos = nullptr;
    CKTXmlNode* hit = GetChild(pos, name);
    if (hit != nullptr)
        return hit;
    for (const CKTXmlNode* child = GetFirstChild(pos); child != nullptr && hit == nullptr;
         child = GetNextChild(pos))
        hit = child->GetFirstNode(name, level + 1);
    return hit;
}

CKTXmlNode* CKTXmlNode::FindNode(const char* path) const {
    return path != nullptr ? FindNode(path, 1) : nullptr;
}

CKTXmlNode* CKTXmlNode::FindNode(const char* path, unsigned int level) const {
    const char* dot = std::strchr(path, '.');
    if (dot != nullptr && level < kMostLevels) {
        const std::size_t length = static_cast<std::size_t>(dot - path);
        void* pos = nullptr;
        for (const CKTXmlNode* child = GetFirstChild(pos); child != nullptr;
             child = GetNextChild(pos)) {
            if (!EqualNoCase(child->m_name, path, length))
                continue;
            if (CKTXmlNode* hit = child->FindNode(dot + 1, level + 1))
                return hit;
        }
    }
    return GetFirstNode(path, level);
}
