// XML trees: small and forgiving, parsed from text and files and written back.
#ifndef KTBASE_KTXML_H
#define KTBASE_KTXML_H

#include <cstddef>

#include "KTBase/KTDefs.h"
#include "KTBase/KTList.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"

/// Range of text, end exclusive: what is left to parse, or one tag from its '<' to its '>'.
struct tag_XMLTXT {
    const char* begin;
    const char* end;
};

/// Attribute of an element. Owns its texts and lends them; each is null while it has none.
class KTBASE_API CKTXmlAttr : public IKTBaseOBJ {
public:
    CKTXmlAttr();
    /// Copies both; null stays null. A copy that memory does not allow is null, too.
    CKTXmlAttr(const char* name, const char* value);
    CKTXmlAttr(const CKTXmlAttr&) = delete;
    CKTXmlAttr& operator=(const CKTXmlAttr&) = delete;
    ~CKTXmlAttr() override;

    const char* GetName() const;
    const char* GetValue() const;

    /// Reads name=value or name="value" from [begin, end), which may lie in the attribute's own
    /// texts. Leading spaces are skipped; spaces in front of the '=' belong to the name. A quoted
    /// value ends at its quote, or with the range; an unquoted one loses trailing spaces. Entities
    /// stay as they are written.
    /// Returns 0; -1 for an empty range, without '=' or without memory: nothing has changed.
    int Parse(const char* begin, const char* end);
    /// Appends a space and name="value", not escaped. -1 when either is null or out cannot grow.
    int ToString(CKTString& out) const;

    /// Whether the name is this one, case included. False when either is null or empty.
    bool operator==(const char* name) const;

private:
    char* m_name;
    char* m_value;
};

/// Element of an XML tree: name, attributes, and either a text or child elements; the text of an
/// element with children is not kept. Owns its texts, attributes and children, lends them, and is
/// freed with its parent. A tree belongs to one thread at a time.
///
/// This is not a conforming parser, and the files of deployed systems rely on how it reads:
/// - A tag runs from a '<' to the next '>', wherever that stands. Tags that begin with "<?xml" or
///   "<!" are skipped, so a comment ends at the first '>' in it.
/// - A closing tag closes whatever element is open: its name is not compared.
/// - Only a space (0x20) ends a name. Only double quotes quote.
/// - Only element text is decoded. Line breaks and tabs in it are dropped; spaces stay.
///
/// A tree has up to 1000 levels: deeper text does not parse, and what a program has put deeper is
/// neither written nor found. A list position is valid until its child or attribute goes.
class KTBASE_API CKTXmlNode : public IKTBaseOBJ {
public:
    CKTXmlNode();
    /// parent is borrowed and does not get to know of the child; AddChild does that.
    explicit CKTXmlNode(CKTXmlNode* parent);
    CKTXmlNode(const CKTXmlNode&) = delete;
    CKTXmlNode& operator=(const CKTXmlNode&) = delete;
    ~CKTXmlNode() override;

    /// Writes the tree into a text of its own and drops that: no output. Derived classes print.
    virtual void Dump();

    /// Frees texts, attributes and children; the parent stays.
    void Clear();

    // ---- parsing and writing ----

    /// Parses the first element of len bytes of text; 0: up to the NUL. What follows that element
    /// is not looked at. Returns the root, which the caller deletes: after an error as far as it
    /// was built. Null without a tag and without memory.
    static CKTXmlNode* ParseXml(const char* text, std::size_t len);
    /// Reads a text file, clears this node and parses the file's first element into it. A node with
    /// a parent is a child that expects its parent's next tag behind it: without one the result is
    /// -1, though the node is complete.
    /// Returns 0, or -1: for a null or empty path or a file that cannot be read nothing has
    /// changed; after malformed text the tree is kept as far as it was built.
    int Load(const char* path);
    /// Appends the tree, one element or text a line. Texts are written as they are: escape them
    /// with MakeXMLString before they are stored. Nodes without a name are left out.
    /// Returns 0; -1 without a name, beyond 1000 levels or when out cannot grow: out is unchanged.
    int ToString(CKTString& out) const;
    /// Appends len bytes of text (below 0: up to the NUL) with '<', '>' and both quotes as
    /// entities. '&' becomes "&amp" without a semicolon: the peers expect it so. Makes room for
    /// twice the length first. text may lie in out.
    /// False only for a null text. When out cannot grow it is unchanged and a fault is printed.
    static bool MakeXMLString(CKTString& out, const char* text, int len);

    // ---- content ----

    const char* GetName() const;    ///< without the prefix
    const char* GetPrefix() const;  ///< what stands before the ':'
    const char* GetValue() const;   ///< the text, decoded
    CKTXmlNode* GetParent() const;  ///< null for a root
    /// Each stores a copy; "" is a text, null removes. Returns 0, or -6: the old text stays.
    int SetName(const char* name);
    int SetPrefix(const char* prefix);
    int SetValue(const char* value);

    /// Makes child, with all below it, the last child and takes it over. Returns 0; -1 for null,
    /// for a child of another parent, for a node that this one stands in, and without memory: it
    /// then stays the caller's.
    int AddChild(CKTXmlNode* child);
    /// Walk the children; pos is null, as the result, at the end.
    CKTXmlNode* GetFirstChild(void*& pos) const;
    CKTXmlNode* GetNextChild(void*& pos) const;
    /// First child of this name (ASCII case ignored) from the one at pos on, from the first for a
    /// null pos. pos stays on it, or becomes null with the result.
    CKTXmlNode* GetChild(void*& pos, const char* name) const;

    /// Adds a copy at the end, or with append false at the front, without looking for another of
    /// that name. Returns 0; -1 when name, value or the node's name is null or empty, and without
    /// memory.
    int AddAttr(const char* name, const char* value, bool append);
    /// First attribute of exactly this name, or null.
    CKTXmlAttr* FindAttr(const char* name) const;
    /// Walk the attributes, as the children are walked.
    CKTXmlAttr* GetFirstAttr(void*& pos) const;
    CKTXmlAttr* GetNextAttr(void*& pos) const;

    // ---- search below this node; names compare without ASCII case ----

    /// A child of that name, else the first hit among each child's own children, and so on down.
    CKTXmlNode* GetFirstNode(const char* name) const;
    /// path: names separated by '.'. Each child of the first name is searched for the rest of the
    /// path, the last name of which may lie at any depth. Without a hit the whole path is looked
    /// for as one name.
    CKTXmlNode* FindNode(const char* path) const;

private:
    int Parse(tag_XMLTXT& cursor, tag_XMLTXT& item, unsigned int level);
    int ParseContent(tag_XMLTXT& cursor, tag_XMLTXT& item, unsigned int level);
    int ParseHead(const char* begin, const char* end);
    int ParseAttr(const char* begin, const char* end);
    int ParseValue(const char* begin, const char* end);
    bool AttachChild(CKTXmlNode* child);
    bool Write(CKTString& out, unsigned int level) const;
    CKTXmlNode* GetFirstNode(const char* name, unsigned int level) const;
    CKTXmlNode* FindNode(const char* path, unsigned int level) const;

    char* m_name;
    char* m_prefix;
    char* m_value;
    CKTXmlNode* m_parent;  // borrowed
    CKTListOBJ m_children;
    CKTListOBJ m_attrs;
    bool m_attached;  // one of m_parent's children
};

#endif
