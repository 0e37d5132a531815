// Messages and challenges as an attacker would send them. From the repository's root:
//   clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -DKTBASE_STATIC -Iinc/core
//       -Isrc/core/KTBase -o build/KTHttpFuzz fuzz/KTHttpFuzz.cpp src/core/KTBase/*.cpp
//       src/core/KTBase/os/posix/*.cpp -lssl -lcrypto -lz
//       $(pkg-config --cflags --libs jsoncpp)
//   build/KTHttpFuzz -max_len=4096 CORPUS
// The first byte of an input chooses what it is, the second where it is split.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "KTBase/KTDebug.h"
#include "KTBase/KTHttp.h"

namespace {

constexpr unsigned int kMostOut = 10000;

void Expect(bool holds) {
    if (!holds)
        std::abort();
}

/// A message as it arrives: what is not taken stays in front of what comes.
struct Message {
    CKTHTTPCommand command;
    CKTString body;
    std::string left;
    int result = 0;

    Message(bool inflate, unsigned int most) { command.SetInflate(inflate, most); }

    void Take(const std::string& piece, bool request) {
        left += piece;
        while (result >= 0 && !left.empty()) {
            const std::vector<char> exact(left.begin(), left.end());
            const int size = static_cast<int>(exact.size());
            result = request ? command.RecvRequest(exact.data(), size, &body)
                             : command.RecvResponse(exact.data(), size, &body);
            Expect(result <= size && (result >= 0 || result == KT_MALFORMED));
            if (result <= 0)
                return;
            left.erase(0, static_cast<std::size_t>(result));
        }
    }

    bool Equals(Message& other) {
        CKTString fields, otherFields;
        Expect(command.ToString(fields) == KT_OK && other.command.ToString(otherFields) == KT_OK);
        return fields.EqualTo(otherFields) != 0 && body.EqualTo(other.body) != 0 &&
               body.GetLength() == other.body.GetLength() && left == other.left &&
               command.IsCompleted() == other.command.IsCompleted();
    }
};

void Receive(const std::string& text, std::size_t cut, bool request, bool inflate) {
    Message whole(inflate, kMostOut), split(inflate, kMostOut);
    whole.Take(text, request);
    split.Take(text.substr(0, cut), request);
    split.Take(text.substr(cut), request);
    // Without the stream, pieces of compressed data are expanded one by one.
    if (!inflate && (whole.command.IsGZip() || split.command.IsGZip()))
        return;
    Expect((whole.result < 0) == (split.result < 0));
    Expect(whole.result < 0 || whole.Equals(split));
}

void Authenticate(const char* text) {
    CKTHTTPAuthen simple, full, server;
    simple.SetUser("u", "p");
    full.SetUser("u", "p");
    const int digest = simple.ParseRespDigest(text);
    Expect(digest == KT_OK || digest == KT_ARGUMENT);
    Expect(simple.GetRequDigestResult("GET", "/") != nullptr);
    const int first = simple.ParseResponse(text);
    Expect(first == KT_OK || first == KT_ERROR);
    const int list = full.ParseChallenge(text);
    Expect(list == KT_OK || list == KT_UNSUPPORTED);
    Expect(list == KT_OK || full.GetAuthorization("GET", "/") == nullptr);
    const int basic = server.ParseRequest(text);
    Expect(basic == KT_OK || basic == KT_UNSUPPORTED || basic == KT_ERROR);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    KTDBG_EnablePrint(0, 2);
    const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
    if ((data[0] & 4) != 0)
        Authenticate(text.c_str());
    else
        Receive(text, data[1] * text.size() / 256, (data[0] & 1) != 0, (data[0] & 2) != 0);
    return 0;
}
