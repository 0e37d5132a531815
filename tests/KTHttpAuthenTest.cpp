#include <KTBase/KTHttp.h>
#include <gtest/gtest.h>

#include <string>

#include "KTHeap.h"
#include "KTHttpDigest.h"

namespace {

// ---- RFC 2617, section 3.5, and RFC 7616, section 3.9.1 ----

TEST(HttpDigest, GivesTheResponsesOfTheStandards) {
    const char* const kNonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFsH4GiTo0v";
    const char* const kCnonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
    const struct {
        KTHttpDigest from;
        const char* response;
    } rows[] = {
        {{false, "Mufasa", "testrealm@host.com", "Circle Of Life",
          "dcd98b7102dd2f0e8b11d0f600bfb0c093", "GET", "/dir/index.html", "0a4f113b", 1},
         "6629fae49393a05397450978507c4ef1"},
        {{false, "Mufasa", "http-auth@example.org", "Circle of Life", kNonce, "GET",
          "/dir/index.html", kCnonce, 1},
         "8ca523f5e9506fed4657c9700eebdbec"},
        {{true, "Mufasa", "http-auth@example.org", "Circle of Life", kNonce, "GET",
          "/dir/index.html", kCnonce, 1},
         "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1"},
    };
    for (const auto& row : rows) {
        char out[kKTHttpDigestBytes];
        ASSERT_TRUE(KTHttpDigestResponse(row.from, out));
        EXPECT_STREQ(out, row.response);
    }
}

}  // namespace
