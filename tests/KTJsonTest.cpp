#include <KTBase/KTJson.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <list>
#include <locale>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "KTHeap.h"
#include "KTTestBytes.h"
#include "KTTestFolder.h"
#include "KTTestLoad.h"

namespace {

// 0: all succeed; else the nth from now on fails.
unsigned int g_failingNew = 0;

// RFC 8259, section 13, with fewer line breaks and members.
const char kImage[] = R"({
        "Image": { "Width":  800, "Height": 600, "Title":  "View from 15th Floor",
            "Thumbnail": { "Url":    "http://www.example.com/image/481989943",
                "Height": 125, "Width":  100
            },
            "Animated" : false, "IDs": [116, 943, 234, 38793]
          }
      })";
const char kImageWritten[] =
    R"({"Image":{"Animated":false,"Height":600,"IDs":[116,943,234,38793],)"
    R"("Thumbnail":{"Height":125,"Url":"http://www.example.com/image/481989943","Width":100},)"
    R"("Title":"View from 15th Floor","Width":800}})";
// From a block of exactly its size: reading past it shows.
int Parse(IKTJsonNode& node, const std::string& text) {
    const std::vector<char> exact(text.begin(), text.end());
    return exact.empty() ? node.Parse("", 0) : node.Parse(exact.data(), exact.size());
}

std::string Written(const IKTJsonNode& node) {
    CKTString out;
    return node.ToString(out, false) == 0 ? Text(out) : "(failed)";
}

struct Stream : IKTBaseOBJ {
    std::int64_t bits = 0;
    CKTString codec;

    int Exchange(bool save, IKTJsonNode& node) {
        node.Exchange(save, "bits", bits);
        node.Exchange(save, "codec", codec);
        return node.GetExchangeResult();
    }
};

struct Camera {
    bool on = false;
    unsigned short port = 80;
    double gain = 0;
    std::uint64_t serial = 0;
    CKTString name;
    Stream main;
    CKTListP<Stream> streams;
    std::list<Stream> more;
    std::vector<std::vector<int>> zones;
    IKTJsonNode vendor;

    Camera() {
        streams.SetAutoDel(true);
        streams.SetReleaseMode(1);
    }
    int Exchange(bool save, IKTJsonNode& node) {
        node.Exchange(save, "on", on);
        node.Exchange(save, "port", port);
        node.Exchange(save, "gain", gain);
        node.Exchange(save, "serial", serial);
        node.Exchange(save, "name", name);
        node.Exchange(save, "main", main);
        node.Exchange(save, "streams", streams);
        node.Exchange(save, "more", more);
        node.Exchange(save, "zones", zones);
        node.Exchange(save, "vendor", vendor);
        return node.GetExchangeResult();
    }
};

const char kCamera[] =
    R"({"gain":0.5,"main":{"bits":-9223372036854775808,"codec":"h265"},)"
    R"("more":[{"bits":1,"codec":""}],"name":"Tor \u00e4\u0000","on":true,"port":65535,)"
    R"("serial":18446744073709551615,"streams":[{"bits":2,"codec":"a"},{"bits":3,"codec":"b"}],)"
    R"("vendor":[{}],"zones":[[],[1,-2]]})";

std::string Nested(unsigned int levels) {
    return std::string(levels, '[') + std::string(levels, ']');
}

struct CommaPunctuation : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

}  // namespace

// Not inline, or g++ sees malloc meet delete.
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* p = g_failingNew != 0 && --g_failingNew == 0 ? nullptr : std::malloc(size + 1);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

TEST(Json, ReadsWhatTheStandardAllowsWhateverTheLocale) {
    const std::locale old = std::locale::global(std::locale(std::locale(), new CommaPunctuation));
    const std::string rows[][2] = {
        {kImage, kImageWritten},
        {"\"Hello world!\"", "\"Hello world!\""},
        {"\xEF\xBB\xBF \t\r\n42 ", "42"},
        {"[true,false,null,{},[],\"\",{\"\":0}]", "[true,false,null,{},[],\"\",{\"\":0}]"},
        {"[1.5,1234567,-1e300]", "[1.5,1234567,-1e+300]"},
        {"[-0,-0.0,1E+2,1e-2,0e9,5e-324]", "[0,-0.0,100.0,0.01,0.0,4.94065645841247e-324]"},
        {"[-9223372036854775808,18446744073709551615]",
         "[-9223372036854775808,18446744073709551615]"},
        {"[-9223372036854775809,18446744073709551616]",
         "[-9.2233720368547758e+18,1.8446744073709552e+19]"},
        {R"("\"\\\/\b\f\n\r\t\u00E9\u20ac\ud83D\uDE00\u0000")",
         "\"\\\"\\\\/\\b\\f\\n\\r\\t\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\\u0000\""},
        {Nested(256), Nested(256)}};
    for (const auto& [text, written] : rows) {
        IKTJsonNode node;
        EXPECT_EQ(Parse(node, text), 0) << text;
        EXPECT_EQ(Written(node), written);
    }
    std::locale::global(old);
}

TEST(Json, RefusesAllElseAndStaysAsItWas) {
    IKTJsonNode node;
    ASSERT_EQ(node.Parse("[1,2]", 0), 0);
    std::istringstream rows(
        "| |\xEF\xBB\xBF|[1,]|[1 2]|[,1]|{\"a\":1,}|{a:1}|{\"a\" 1}|{1:1}|[1]]|1 x|1/**/|tru|True|"
        "'a'|01|-|+1|1.|.5|1e|1e+|0x10|NaN|-Infinity|1e400|-1e-400|\"\n\"|\"\\x\"|\"\\u12G4\"|"
        "\"\\u-123\"|\"\\ud800\"|\"\\udc00\\ud800\"|\"\\ud800\\ud800\"|\"\x80\"|\"\xC0\x80\"|"
        "\"\xED\xA0\x80\"|\"\xF4\x90\x80\x80\"|\"\xE2\x82\"|{\"a\":1,\"b\":2,\"\\u0061\":3}|"
        "{\"a\\u0000\":1}");
    for (std::string text; std::getline(rows, text, '|');)
        EXPECT_EQ(Parse(node, text), -15) << text;
    for (const std::string& text :
         {std::string("1\0", 2), std::string("\"\\\0\"", 4), Nested(257), std::string(100000, '[')})
        EXPECT_EQ(Parse(node, text), -15) << text;
    EXPECT_EQ(node.Parse(nullptr, 3), -4);
    EXPECT_EQ(Written(node), "[1,2]");
}

TEST(Json, ReadsANumberOnlyIntoWhatCanHoldIt) {
    const auto read = [](const char* text, auto value) {
        IKTJsonNode node;
        EXPECT_EQ(node.Parse(text, 0), 0);
        const int result = node.Get(value);
        return std::to_string(result) + " " + std::to_string(value);
    };
    const std::string rows[][2] = {
        {read("255", std::uint8_t(7)), "0 255"},
        {read("256", std::uint8_t(7)), "-15 7"},
        {read("-1", 7u), "-15 7"},
        {read("2147483648", 7), "-15 7"},
        {read("-2147483648.0", 7), "0 -2147483648"},
        {read("1.5", 7), "-15 7"},
        {read("9223372036854775808", 7LL), "-15 7"},
        {read("18446744073709551616", 7ULL), "-15 7"},
        {read("18446744073709551615", 0.0), "0 18446744073709551616.000000"},
        {read("1", false) + read("true", 7) + read("\"1\"", 7), "-15 0-15 7-15 7"},
        {read("null", 7), "-11 7"}};
    for (const auto& [got, expected] : rows)
        EXPECT_EQ(got, expected);
    std::mt19937_64 random(8259);
    for (unsigned int i = KTTestLoad(20000); i != 0; --i) {
        const std::uint64_t bits = random();
        double number = 0, back = 0;
        std::memcpy(&number, &bits, sizeof(number));
        IKTJsonNode node;
        const bool finite = number - number == 0;
        ASSERT_EQ(node.Set(number), finite ? 0 : -10);
        ASSERT_EQ(Parse(node, Written(node)) + node.Get(back), finite ? 0 : -11);
        ASSERT_EQ(back, finite ? number : 0) << Written(node);
    }
}

TEST(Json, IsChangedByNameAndByIndex) {
    IKTJsonNode node, list, item;
    CKTString name;
    EXPECT_EQ(list.Append("a") + list.Append(true) + list.Append(-3L) + list.Append(0.1f), 0);
    EXPECT_EQ(list.SetAt(1, CKTString("b\"")) * 100 + list.SetAt(4, 1), -11);
    EXPECT_EQ(node.Set("z", list) + node.Set("y", 1u) + node.Set("x", IKTJsonNode()), 0);
    EXPECT_EQ(node.Set("y", node), 0);  // a copy of it as it was
    EXPECT_EQ(list.GetFirst(name, item) + list.RemoveAt(0), 0);
    EXPECT_EQ(list.GetNext(name, item), -7);
    EXPECT_EQ(list.RemoveAt(3), -11);
    EXPECT_EQ(Written(list), "[\"b\\\"\",-3,0.10000000149011612]");
    const std::string array = "[\"a\",\"b\\\"\",-3,0.10000000149011612]";
    EXPECT_EQ(Written(node),
              "{\"x\":null,\"y\":{\"x\":null,\"y\":1,\"z\":" + array + "},\"z\":" + array + "}");
    std::string walked;
    for (int result = node.GetFirst(name, item); result == 0; result = node.GetNext(name, item))
        walked += Text(name) + Written(item).substr(0, 4) + ";";
    EXPECT_EQ(walked, "xnull;y{\"x\";z[\"a\";");
    EXPECT_EQ(node.GetFirst(name, item) * 100 + node.Remove("y") + node.GetNext(name, item), -7);
    EXPECT_EQ(node.Remove("y"), -11);
    EXPECT_EQ(list.GetFirst(name, list) * 100 + list.GetNext(name, item), -7);
    EXPECT_EQ(Text(name) + Written(list), "\"b\\\"\"");
    int number = 7;
    EXPECT_EQ(node.Get("none", number), -11);
    EXPECT_EQ(node.Get("z", number) * 100 + node.GetAt(0, number), -1511);
    EXPECT_EQ(node.Append(1) * 100 + list.Set("a", 1), -707);
    EXPECT_EQ(node.Set("a", "\xE9") * 100 + node.Set("\xE9", 1), -1010);
    EXPECT_EQ(node.Get("z", node) * 10 + node.GetAt(0, node), 0);
    EXPECT_TRUE(node.GetType() == KT_JSON_TEXT && node.GetCount() == 0 && number == 7);
}

TEST(Json, NestsATreeThatCallsBuildNoDeeperThanOneThatIsRead) {
    IKTJsonNode node, wrap;
    for (unsigned int levels = 1; levels <= 256; ++levels) {
        ASSERT_EQ(wrap.Append(node), 0) << levels;
        node.Swap(wrap);
        wrap.Clear();
    }
    EXPECT_EQ(wrap.Append(node) * 100 + wrap.Set("a", node), -1010);
    EXPECT_EQ(wrap.Append(1) * 100 + wrap.SetAt(0, node), -10);
    EXPECT_EQ(Written(wrap) + Written(node), "[1]" + Nested(255).insert(255, "[null]"));
    IKTJsonNode* clone = node.Clone();
    EXPECT_EQ(Written(*clone), Written(node));
    delete clone;
}

TEST(Json, OneFunctionReadsAndWritesARecord) {
    IKTJsonNode node;
    Camera camera;
    ASSERT_EQ(node.Parse(kCamera, 0), 0);
    ASSERT_EQ(camera.Exchange(false, node), 0);
    EXPECT_EQ(camera.port * 10 + camera.on, 655351);
    EXPECT_EQ(Text(camera.name), std::string("Tor \xC3\xA4\0", 7));
    EXPECT_EQ(Text(camera.streams[1]->codec) + Text(camera.main.codec), "bh265");
    // What is missing or null stays; what a record does not know is kept.
    ASSERT_EQ(node.Parse(R"({"port":null,"main":{"codec":"x","new":1},"streams":[]})", 0), 0);
    ASSERT_EQ(camera.Exchange(false, node), 0);
    EXPECT_EQ(camera.port, 65535);
    EXPECT_EQ(camera.streams.GetCount(), 0u);
    ASSERT_EQ(camera.Exchange(true, node), 0);
    ASSERT_EQ(node.Get("main", node), 0);
    EXPECT_EQ(Written(node), R"({"bits":-9223372036854775808,"codec":"x","new":1})");
}

TEST(Json, ARecordTellsItsFirstFailureAndListsStayWhole) {
    std::istringstream rows(
        R"({"port":65536,"on":1}|{"main":{"bits":""}}|{"main":[]}|{"streams":[{"bits":9},7]}|)"
        R"({"streams":{}}|{"more":[{"bits":9},null]}|{"zones":[[1],[null]]}|[])");
    for (std::string text; std::getline(rows, text, '|');) {
        IKTJsonNode node, before;
        Camera camera;
        ASSERT_EQ(node.Parse(kCamera, 0), 0);
        ASSERT_EQ(camera.Exchange(false, node), 0);
        ASSERT_EQ(Parse(node, text), 0);
        EXPECT_EQ(camera.Exchange(false, node), -15) << text;
        camera.on = true;
        ASSERT_EQ(camera.Exchange(true, before), 0);
        ASSERT_EQ(node.Parse(kCamera, 0), 0);
        EXPECT_EQ(Written(before), Written(node)) << text;
    }
    IKTJsonNode node;
    Camera camera;
    camera.gain = std::numeric_limits<double>::infinity();
    camera.name = "\xFF";
    EXPECT_EQ(camera.Exchange(true, node), -10);
    EXPECT_FALSE(node.Has("gain") || node.Has("name") || !node.Has("zones"));
}

TEST(Json, SavesAFileWholeOrNotAtAll) {
    const TestFolder folder;
    const std::string path = folder / "s\xC3\xB6me.json";
    IKTJsonNode node;
    ASSERT_EQ(node.Parse(kImage, 0), 0);
    ASSERT_EQ(node.Save(path.c_str(), false), 0);
    EXPECT_EQ(TestFolder::Get(path), kImageWritten + std::string("\n"));
    ASSERT_EQ(node.Parse("[\"new\"]", 0), 0);
    ASSERT_EQ(node.Save(path.c_str(), true), 0);
    TestFolder::Put(folder / "empty.json", "");
    EXPECT_EQ(node.Load((folder / "empty.json").c_str()), -15);
    EXPECT_EQ(node.Load((folder / "none").c_str()), -11);
    EXPECT_EQ(node.Load((folder / "").c_str()), -1);
    EXPECT_EQ(node.Save((folder / "none/a").c_str(), true), -11);
    EXPECT_EQ(Written(node), "[\"new\"]");
    ASSERT_EQ(node.Set(1) + node.Load(path.c_str()), 0);
    EXPECT_EQ(Written(node), "[\"new\"]");
    for (const char* name : {"taken", "held.new"})
        std::filesystem::create_directory(std::filesystem::u8path(folder / name));
    for (const char* name : {"taken", "held"})
        EXPECT_EQ(node.Save((folder / name).c_str(), true), -1) << name;
    const std::filesystem::directory_iterator files(std::filesystem::u8path(folder / ""));
    EXPECT_EQ(std::distance(begin(files), end(files)), 4);  // nothing left aside, nothing else gone
}

TEST(Json, SurvivesCutAndMutatedDocuments) {
    for (const std::string& whole : {std::string(kImage), std::string(kCamera)}) {
        IKTJsonNode node;
        for (std::size_t length = 0; length < whole.size(); ++length)
            ASSERT_EQ(Parse(node, whole.substr(0, length)), -15) << length;
        std::mt19937 random(13);
        const std::string special = "{}[]\",:\\u0-.eE \xE9\xF0tn";
        for (unsigned int round = KTTestLoad(40000); round != 0; --round) {
            std::string text = whole;
            for (unsigned int i = random() % 4; i != ~0u; --i) {
                const std::size_t at = random() % text.size();
                if (random() % 3 == 0)
                    text.erase(at, random() % 8 + 1);
                else if (random() % 2 == 0)
                    text.insert(at, whole.substr(random() % whole.size(), random() % 30));
                else
                    text[at] = special[random() % special.size()];
                text += ' ';
            }
            const int result = Parse(node, text);
            ASSERT_TRUE(result == 0 || result == -15) << text;
            const std::string written = Written(node);
            ASSERT_TRUE(result != 0 || (Parse(node, written) == 0 && Written(node) == written));
        }
    }
}

TEST(Json, SaysSoWhenMemoryIsOutAndChangesNothing) {
    Camera camera;
    CKTString text("old");
    IKTJsonNode other;
    ASSERT_EQ(other.Parse(kCamera, 0), 0);
    const std::function<int(IKTJsonNode&)> steps[] = {
        [](IKTJsonNode& node) { return node.Parse(kImage, 0); },
        [&](IKTJsonNode& node) { return node.Set("name of some length", other); },
        [&](IKTJsonNode& node) { return node.Get("main", node); },
        [&](IKTJsonNode& node) { return node.ToString(text, true); },
        [&](IKTJsonNode& node) { return camera.Exchange(false, node); },
        [&](IKTJsonNode&) {
            IKTJsonNode made;
            return camera.Exchange(true, made);
        }};
    testing::internal::CaptureStdout();
    for (const auto& step : steps) {
        for (const bool heap : {false, true}) {
            int result = -6, failures = 0;
            for (unsigned int nth = 1; result != 0; ++nth) {
                IKTJsonNode node;
                ASSERT_EQ(node.Parse(kCamera, 0), 0);
                const std::string before = Written(node);
                KTHeapFailAt(heap ? nth : 0);
                g_failingNew = heap ? 0 : nth;
                result = step(node);
                g_failingNew = 0;
                KTHeapFailAt(0);
                ASSERT_TRUE(result == 0 || (result == -6 && Written(node) == before)) << result;
                failures += result != 0;
            }
            EXPECT_TRUE(heap || failures > 0);
        }
    }
    testing::internal::GetCapturedStdout();
}

// peers/json reads the files.
TEST(Json, WritesForPython) {
    const char* folder = std::getenv("KTBASE_JSON_FOLDER");
    if (folder == nullptr || *folder == '\0')
        GTEST_SKIP() << "run by ctest";
    IKTJsonNode node, list;
    CKTString text;
    for (char c = 0; c < 0x20; ++c)
        text.AppendChar(c, 1);
    text += "\"\\/\x7F\xC3\xA4\xE2\x82\xAC\xEF\xBF\xBF\xF0\x9F\x98\x80";
    for (const double number : {0.1, 29.97, 1.0, 1e22, 5e-324, 1.7976931348623157e308, 1.0 / 3})
        list.Append(number);
    node.Set("doubles", list);
    list.Clear();
    list.Append(std::numeric_limits<long long>::min());
    list.Append(std::numeric_limits<unsigned long long>::max());
    EXPECT_EQ(list.Append(true) + list.Append(IKTJsonNode()) + list.Append(text), 0);
    EXPECT_EQ(node.Set("\xC3\xA4 \"", list) + list.MakeObject() + node.Set("empty", list), 0);
    ASSERT_EQ(node.Save((std::string(folder) + "/line.json").c_str(), false), 0);
    ASSERT_EQ(node.Save((std::string(folder) + "/indented.json").c_str(), true), 0);
}
