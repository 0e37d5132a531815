#include <KTBase/KTXml.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KTHeap.h"
#include "KTTestBytes.h"
#include "KTTestFolder.h"

namespace {

using Tree = std::unique_ptr<CKTXmlNode>;

// From a block of exactly its size: reading past it shows.
Tree Parse(const std::string& text) {
    const std::vector<char> exact(text.begin(), text.end());
    return Tree(CKTXmlNode::ParseXml(exact.data(), exact.size()));
}

std::string Written(const CKTXmlNode& node) {
    CKTString out;
    return node.ToString(out) == 0 ? Text(out) : "(-1)";
}

// The purchase order of W3C's "XML Schema Part 0: Primer", section 2.1, shortened.
const char kOrder[] =
    "<?xml version=\"1.0\"?>\n<purchaseOrder orderDate=\"1999-10-20\">\n"
    "   <shipTo country=\"US\">\n      <name>Alice Smith</name>\n      <zip>90952</zip>\n"
    "   </shipTo>\n   <!-- Hurry, my lawn is going wild! -->\n   <items>\n"
    "      <item partNum=\"872-AA\">\n         <productName>Lawnmower</productName>\n"
    "         <comment>Confirm this is electric &amp; new</comment>\n      </item>\n"
    "      <item partNum=\"926-AA\"><quantity>1</quantity></item>\n"
    "   </items>\n</purchaseOrder>\n";

}  // namespace

TEST(Xml, ReadsForgivinglyAndWritesBack) {
    const char* const rows[][2] = {
        {"<a><b>1</c></a>", "<a>\n<b>\n1\n</b>\n</a>\n"},
        {"<n:a k=\"v\" m=w/>", "<n:a k=\"v\" m=\"w\"/>\n"},
        {"<a>\r\n\t a&b;&amp;lt;&apos;&quot;&gt;&amp\n</a>", "<a>\n ab;&lt;'\">amp\n</a>\n"},
        {"<?php?>x</>", "<?php?>\nx\n</?php?>\n"},
        {"<a>1<!--c-->2</a>", "<a>\n1<!--c-->2\n</a>\n"},
        {"<a>lost<b/>lost</a>", "<a>\n<b/>\n</a>\n"},
        {"<a:b:c/>", "<a:b:c/>\n"},
        {"<a\tk=\"v\"/>", "<a\tk=\"v\"/>\n"},
        {"<a  k=\"\"  l= m =\"q\" n=\"a b\"o=\"1&lt;\" p/>",
         "<a k=\"\" l=\"\" m =\"q\" n=\"a b\" o=\"1&lt;\"/>\n"},
        {"<a k=\"v w/>", "<a k=\"v w\"/>\n"},
        {"<a><></></a>", "<a>\n</a>\n"}};
    for (const auto& [text, written] : rows) {
        EXPECT_EQ(Written(*Parse(text)), written) << text;
    }
    for (const char* same : {"<a></a>", "<a>\r\n\t&</a>", "<?xml?><!DOCTYPE a><!-- > --><a/><b/>",
                             "<!-- <b> --><a/>", "<:a/>", "<a><b>1</b>"})
        EXPECT_EQ(Written(*Parse(same)), "<a/>\n") << same;
    for (const char* none : {"text", "<a", "a>", "<?xml?>", "<!-->", "><"})
        EXPECT_EQ(Parse(none), nullptr) << none;
    EXPECT_TRUE(!CKTXmlNode::ParseXml("", 0) && !CKTXmlNode::ParseXml(nullptr, 5));
    EXPECT_EQ(Written(*Parse("</a>")), "(-1)");
    EXPECT_EQ(Parse("<a><:p>1</p></a>")->GetFirstNode("P")->GetPrefix(), nullptr);
}

TEST(Xml, LoadsFilesAsFarAsTheyGo) {
    const TestFolder folder;
    const std::string path = folder / "\xC3\xB6rder.xml";
    TestFolder::Put(path, kOrder);
    CKTXmlNode node;
    node.SetName("old");
    for (const std::string& bad : {std::string(), folder / "none", folder / ""}) {
        EXPECT_EQ(node.Load(bad.c_str()), -1) << bad;
        EXPECT_EQ(Or(node.GetName()), "old");
    }
    ASSERT_EQ(node.Load(nullptr) * 10 + node.SetValue(path.c_str()), -10);
    ASSERT_EQ(node.Load(node.GetValue()), 0);
    EXPECT_EQ(Or(node.FindAttr("orderDate")->GetValue()), "1999-10-20");
    EXPECT_EQ(Or(node.FindNode("items.comment")->GetValue()), "Confirm this is electric & new");
    const char* const cut[][2] = {{"no element", "(-1)"},
                                  {"<a k=\"v\">text", "<a k=\"v\"/>\n"},
                                  {"<a><b/><c/>", "<a>\n<b/>\n</a>\n"},
                                  {"<a><b/><c><d/>", "<a>\n<b/>\n</a>\n"}};
    for (const auto& [text, written] : cut) {
        TestFolder::Put(path, text);
        EXPECT_EQ(node.Load(path.c_str()), -1) << text;
        EXPECT_EQ(Written(node), written) << text;
    }
    CKTXmlNode child(&node);
    TestFolder::Put(path, "<a>1</a>");
    EXPECT_EQ(child.Load(path.c_str()), -1);  // no tag of a parent behind it
    EXPECT_EQ(Written(child), "<a>\n1\n</a>\n");
}

TEST(Xml, FindsTheNearestNameFirst) {
    const Tree tree = Parse(
        "<r><p><x>deep</x><q><y>1</y></q></p><P><q><z>2</z></q></P><x>near</x><q.z>3</q.z>"
        "<s><t.u>4</t.u></s></r>");
    const char* const rows[][2] = {
        {"X", "near"},  {"p.x", "deep"}, {"p.Q.z", "2"}, {"q.z", "3"},        {"p.z", "2"},
        {"y", "1"},     {"s.t.u", "4"},  {"t.u", "4"},   {"p.none", nullptr}, {"", nullptr},
        {".", nullptr}, {"p.", nullptr}, {".x", nullptr}};
    for (const auto& [path, value] : rows) {
        const CKTXmlNode* hit = tree->FindNode(path);
        EXPECT_EQ(Or(hit != nullptr ? hit->GetValue() : nullptr), Or(value)) << path;
    }
    void* pos = nullptr;
    EXPECT_EQ(tree->GetChild(pos, "p"), tree->GetFirstNode("p"));
    tree->GetNextChild(pos);
    EXPECT_NE(tree->GetChild(pos, "p"), tree->GetFirstNode("p"));
    tree->GetNextChild(pos);
    EXPECT_TRUE(tree->GetChild(pos, "p") == nullptr && pos == nullptr);
}

TEST(Xml, BuildsATreeThatXmllintReads) {
    CKTXmlNode root;
    EXPECT_EQ(root.AddAttr("k", "v", true), -1);  // no name yet
    root.SetName("root");
    CKTString escaped("<'\">");
    EXPECT_TRUE(CKTXmlNode::MakeXMLString(escaped, escaped.GetBuffer(), -1));
    EXPECT_EQ(root.AddAttr("z", "1", true) + root.AddAttr("xmlns:n", "urn:n", false), 0);
    CKTXmlNode* child = new CKTXmlNode;
    child->SetName("c");
    child->SetPrefix("n");
    child->SetValue(escaped.GetBuffer() + 4);
    EXPECT_EQ(root.AddChild(child) * 10 + root.AddChild(child) + child->AddChild(&root) +
                  root.AddChild(nullptr),
              -3);
    const std::string head = "<root xmlns:n=\"urn:n\" z=\"1\">\n<n:c>\n";
    EXPECT_EQ(Written(root), head + "&lt;&apos;&quot;&gt;\n</n:c>\n</root>\n");
    const TestFolder folder;
    TestFolder::Put(folder / "t.xml", Written(root));
    const std::string to = " > \"" + folder / "out" + "\" 2>&1";
    if (std::system(("xmllint --version" + to).c_str()) != 0)
        GTEST_SKIP() << "no xmllint here";
    ASSERT_EQ(std::system(("xmllint --c14n \"" + folder / "t.xml" + "\"" + to).c_str()), 0);
    EXPECT_EQ(TestFolder::Get(folder / "out"), head + "&lt;'\"&gt;\n</n:c>\n</root>");
}

TEST(Xml, EscapesAmpersandsWithoutSemicolonAndReservesTwiceTheLength) {
    CKTString out(0, 0);
    EXPECT_TRUE(CKTXmlNode::MakeXMLString(out, "a&bcd", 3));
    EXPECT_EQ(Text(out), "a&ampb");
    EXPECT_TRUE(CKTXmlNode::MakeXMLString(out, "12345", -1));
    EXPECT_EQ(out.Size(), 6u + 10 + 1);
    CKTString tight(8, 0);
    EXPECT_TRUE(CKTXmlNode::MakeXMLString(tight, "123<", -1));  // 7 bytes fit, 8 do not
    EXPECT_EQ(Text(tight), "123&lt;");
    EXPECT_TRUE(CKTXmlNode::MakeXMLString(tight, "<", -1));
    EXPECT_EQ(Text(tight), "123&lt;");
}

TEST(Xml, AttributesTakeTheirOwnTexts) {
    CKTXmlAttr attr("k=\"a b\" ", " n = x y  ");
    const std::string name = attr.GetName();
    EXPECT_EQ(attr.Parse(attr.GetValue(), attr.GetValue() + 10), 0);
    EXPECT_EQ(Or(attr.GetName()) + "|" + Or(attr.GetValue()), "n | x y");
    EXPECT_EQ(attr.Parse(name.data(), &name.back() + 1), 0);
    EXPECT_EQ(Or(attr.GetName()) + "|" + Or(attr.GetValue()), "k|a b");
    EXPECT_EQ(attr.Parse(name.data(), name.data() + 1), -1);  // the '=' lies behind the range
    EXPECT_FALSE(!(attr == "k") || attr == "K" || attr == "" ||
                 attr == static_cast<const char*>(nullptr));
    CKTString out("x");
    EXPECT_EQ(CKTXmlAttr("n", nullptr).ToString(out) * 10 + attr.ToString(out), -10);
    EXPECT_STREQ(out.GetBuffer(), "x k=\"a b\"");
    CKTXmlNode node;
    node.SetName("name");
    EXPECT_EQ(node.SetName(node.GetName() + 2) + node.SetValue("") + node.SetPrefix(nullptr), 0);
    EXPECT_EQ(Written(node), "<me>\n\n</me>\n");
}

TEST(Xml, GoesAThousandLevelsDeepAndNoFurther) {
    std::string text = "<b/>";
    for (int i = 1; i < 1000; ++i)
        text = "<a>" + text + "</a>";
    EXPECT_EQ(Written(*Parse(text)).size(), text.size() + 2 * 999 + 1);  // a line feed a tag
    EXPECT_EQ(Written(*Parse("<a>" + text + "</a>")), "<a/>\n");
    CKTXmlNode root;
    void* pos = nullptr;
    CKTXmlNode* deepest = &root;
    for (int i = 0; i < 3000; ++i, deepest = deepest->GetFirstChild(pos)) {
        deepest->SetName("a");
        ASSERT_EQ(deepest->AddChild(new CKTXmlNode), 0);
    }
    deepest->SetName("b");
    EXPECT_TRUE(Written(root) == "(-1)" && root.GetFirstNode("b") == nullptr);
}

TEST(Xml, SurvivesMutatedDocumentsAndMissingMemory) {
    std::mt19937 random(24);
    const std::string order = kOrder;
    const std::string special = "<>/=\" :&!?.\xE9";
    for (int round = 0; round < 20000; ++round) {
        std::string text = order;
        for (unsigned int i = random() % 8; i != ~0u; --i) {
            const std::size_t at = random() % text.size();
            const unsigned int how = random() % 3;
            if (how == 0)
                text.erase(at, random() % 20);
            else if (how == 1)
                text.insert(at, order.substr(random() % order.size(), random() % 30));
            else
                text[at] = special[random() % special.size()];
            text += '>';
        }
        const Tree tree = Parse(text.substr(0, random() % text.size() + 1));
        if (tree == nullptr)
            continue;
        ASSERT_EQ(Written(*tree) == "(-1)", tree->GetName() == nullptr) << text;
    }
    const std::string whole = Written(*Parse(kOrder));
    int failures = 0;
    testing::internal::CaptureStdout();
    for (unsigned int nth = 1; nth < 150; ++nth) {
        KTHeapFailAt(nth);
        const Tree tree(CKTXmlNode::ParseXml(kOrder, 0));
        CKTString out;
        const bool done = tree != nullptr && tree->ToString(out) == 0;
        KTHeapFailAt(0);
        failures += !done || out.GetLength() < whole.size();
        EXPECT_TRUE(done || out.IsEmpty()) << nth;
    }
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(failures > 30 && failures < 149) << failures;
}
