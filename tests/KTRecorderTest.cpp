#include <KTBase/KTString.h>
#include <gtest/gtest.h>

#include <string>

#include "Finder.h"
#include "KTTestBytes.h"
#include "KTTestFolder.h"
#include "KTTestFrame.h"
#include "Page.h"
#include "Part.h"
#include "Recording.h"
#include "Text.h"
#include "Timeline.h"

namespace {

/// "" for a part that is a frame, else what is wrong.
std::string Check(const std::string& hex) {
    const char* why = nullptr;
    const std::string bytes = Unhex(hex);
    CKTString part;
    part.AppendDAT(Bytes(bytes), static_cast<unsigned int>(bytes.size()));
    const Packet packet(PacketOfPart(part, why));
    EXPECT_EQ(packet == nullptr, why != nullptr);
    return why != nullptr ? why : "";
}

/// A key frame with the first bytes of a stream, which begins with its parameter sets.
Packet KeyFrame(const char* stream, int codec, int width, int height) {
    const std::string bytes = TestFolder::Get(std::string(KTBASE_MEDIA_DIR "/") + stream);
    return TestFrame(1, codec, bytes.substr(0, 1500), width, height);
}

}  // namespace

TEST(Recorder, TakesAPartThatIsAFrameAndNoOther) {
    const char* const misfit = "the header's length is not the frame's";
    const struct {
        const char *start, *length, *time, *codec, *payload, *why;
    } cases[] = {
        {"000001E1", "06000000", "01000064", "01", "000000016588", ""},
        {"000001E0", "04000000", "01000064", "02", "00000001", ""},
        {"000001E1", "06000000", "01000064", "01", "000001", "too short for a frame"},
        {"000001E1", "06000000", "01000064", "01", "0000000165", misfit},
        {"000001E1", "06000000", "01000064", "01", "00000001658800", misfit},
        {"000001E1", "FFFFFFFF", "01000064", "01", "000000016588", misfit},
        {"0000E101", "06000000", "01000064", "01", "000000016588", "no frame header"},
        {"000001E1", "06000000", "00000000", "01", "000000016588", "a frame without a time"},
        {"000001E1", "06000000", "01000064", "04", "000000016588",  // audio
         "neither H.264 nor H.265 video"},
        {"000001E1", "06000000", "01000064", "01", "000001658888", "no start code of four bytes"},
    };
    for (const auto& c : cases)  // no milliseconds; 25 fps x 4, and 640 x 360
        EXPECT_EQ(Check(std::string(c.start) + c.length + c.time + "0000" + c.codec + "6480026801" +
                        c.payload),
                  c.why);
    EXPECT_EQ(Check(""), "too short for a frame");
    EXPECT_EQ(Check(std::string(2u * kMostPartBytes + 2, '0')), "too long for a frame");
}

TEST(Recorder, CleansWhatACameraCallsItself) {
    const struct {
        const char* text;
        const char* clean;
        const char* file;
    } cases[] = {
        {nullptr, "", "camera"},
        {" \t ", "?", "_"},
        {"  Front door ", "Front door", "Front_door"},
        {"../../etc/passwd", "../../etc/passwd", "______etc_passwd"},
        {"a\\b:c*$`'y", "a\\b:c*$`'y", "a_b_c____y"},
        {"..", "..", "__"},
        {".hidden.", ".hidden.", "_hidden_"},
        {"a...b", "a...b", "a__.b"},
        {"con", "con", "_con"},
        {"LPT1.cam", "LPT1.cam", "_LPT1.cam"},
        {"\x1b[2Jx\r\n", "?[2Jx??", "__2Jx__"},
        {"Gar\xC3\xA7on", "Gar\xC3\xA7on", "Gar\xC3\xA7on"},
        {"\xC0\xAF\xED\xA0\x80\xC2\x85", "???????", "_______"},  // overlong, surrogate, control
        {"cut \xE2\x82", "cut ??", "cut___"},
    };
    for (const auto& test : cases) {
        const std::string clean = CleanText(test.text, 80);
        EXPECT_EQ(clean, test.clean);
        EXPECT_EQ(SafeFileName(clean), test.file);
    }
    // A long name ends between two characters: 3 bytes each.
    std::string euros;
    for (int i = 0; i < 40; ++i)
        euros += "\xE2\x82\xAC";
    EXPECT_EQ(CleanText(euros.c_str(), 80).size(), 78u);
    EXPECT_EQ(SafeFileName(euros).size(), 63u);
}

TEST(Recorder, ReadsNumbersAndAnswersStrictly) {
    unsigned int number = 7;
    for (const char* const text :
         {"", "-1", "+1", " 1", "1 ", "0x1", "65536", "99999999999999999999"})
        EXPECT_FALSE(ReadNumber(text, 65535, number)) << text;
    EXPECT_EQ(number, 7u);
    EXPECT_TRUE(ReadNumber("65535", 65535, number));
    EXPECT_EQ(number, 65535u);

    CKTUrl url;
    EXPECT_TRUE(ReadAnswer("ktcamera 1 http://127.0.0.1:8001/ Front door", url));
    EXPECT_STREQ(url.GetHost(), "127.0.0.1:8001");
    EXPECT_TRUE(ReadAnswer("ktcamera 1 http://127.0.0.1:8001/", url));
    for (const char* const text :
         {"", "ktcamera 1 ", "ktcamera 2 http://127.0.0.1:8001/ x", "ktcamera 1  http://h:1/",
          "ktcamera 1 rtsp://127.0.0.1:8001/ x", "ktcamera 1 http://u:p@127.0.0.1:8001/ x",
          "ktcamera 1 http:// x", "ktdiscover 1", "ktcamera 1 http://h\x1b[2J:1/ x"})
        EXPECT_FALSE(ReadAnswer(text, url)) << text;
}

TEST(Recorder, RemembersTheSecondsOfTwoHours) {
    Timeline timeline;
    for (const unsigned int second : {0u, 1u, 1u, 5u, 3599u, 3600u, 3601u})
        timeline.Mark(second);
    EXPECT_EQ(timeline.GetSeconds(), 6u);
    const auto runs = timeline.RunsOf(1, 3600);
    ASSERT_EQ(runs.size(), 3u);
    EXPECT_EQ(runs[0].first, 1u);
    EXPECT_EQ(runs[0].count, 1u);
    EXPECT_EQ(runs[2].first, 3599u);
    EXPECT_EQ(runs[2].count, 2u);
    timeline.Mark(7200);  // the third hour takes the place of the first
    EXPECT_FALSE(timeline.Has(0));
    EXPECT_TRUE(timeline.Has(3600));
    EXPECT_FALSE(timeline.Has(7201));
    EXPECT_EQ(timeline.GetSeconds(), 7u);
}

TEST(Recorder, ShowsHostileTextsAsTexts) {
    RecorderStatus status;
    status.folder = "<b>&\"'";
    status.elapsed = 90;
    ChooseWindow(status);
    CameraStatus camera;
    camera.title = "</h2><script>alert(\"1\")</script>";
    camera.url = "http://h/'onload='x";
    camera.detail = "a\"b\\c";
    camera.runs = {{0, 3}, {10, 80}};
    status.cameras.push_back(camera);

    CKTString page;
    AppendLive(status, page);
    const std::string html = Text(page);
    EXPECT_NE(html.find("&lt;/h2&gt;&lt;script&gt;alert(&quot;1&quot;)&lt;/script&gt;"),
              std::string::npos);
    EXPECT_NE(html.find("&lt;b&gt;&amp;&quot;&#39;"), std::string::npos);
    EXPECT_EQ(html.find("<script"), std::string::npos);
    EXPECT_EQ(html.find("'onload"), std::string::npos);
    EXPECT_NE(html.find("83 seconds recorded in 2 pieces, 7 seconds missing"), std::string::npos);

    CKTString json;
    ASSERT_TRUE(AppendJson(status, json));
    EXPECT_NE(Text(json).find(R"(a\"b\\c)"), std::string::npos);
}

TEST(Recorder, BeginsAFileForEachFormatAndLeavesOlderOnesAlone) {
    const Packet small = KeyFrame("h264-main-640x360-four-byte.h264", 1, 640, 360);
    const Packet odd = KeyFrame("h264-main-640x360-four-byte.h264", 1, 640, 368);
    const Packet large = KeyFrame("h264-high-1920x1080.h264", 1, 1920, 1080);
    const Packet h265 = KeyFrame("h265-main-1280x720.h265", 2, 1280, 720);
    const TestFolder folder;
    TestFolder::Put(folder / "cam-2.h265", "older");
    Recording recording(folder / "", "cam");
    // A header that tells another size than the parameter sets is no new format by itself.
    for (const Packet& packet : {std::cref(small), std::cref(odd), std::cref(odd), std::cref(small),
                                 std::cref(large), std::cref(h265), std::cref(h265)})
        ASSERT_EQ(recording.Write(*packet), nullptr);
    EXPECT_EQ(recording.Close(), nullptr);

    EXPECT_EQ(TestFolder::Get(folder / "cam.h264").size(), 4u * 1500);
    EXPECT_EQ(TestFolder::Get(folder / "cam.h264.index").size(), 4u * 20);
    EXPECT_EQ(TestFolder::Get(folder / "cam-2.h265"), "older");
    EXPECT_EQ(TestFolder::Get(folder / "cam-3.h264").size(), 1500u);
    EXPECT_EQ(TestFolder::Get(folder / "cam-4.h265").size(), 2u * 1500);
    const std::string headers(reinterpret_cast<const char*>(h265->GetData()), 20);
    EXPECT_EQ(TestFolder::Get(folder / "cam-4.h265.index"), headers + headers);

    Recording nowhere(folder / "missing", "cam");
    EXPECT_STREQ(nowhere.Write(*small), "the folder is gone");
}
