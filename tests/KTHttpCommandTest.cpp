#include <KTBase/KTHttp.h>
#include <gtest/gtest.h>

#include <string>

#include "KTHeap.h"
#include "KTTestBytes.h"

namespace {

// nginx 1.22 to curl 7.88: curl -i --raw --compressed http://127.0.0.1/
const std::string kChunked =
    "HTTP/1.1 200 OK\r\nServer: nginx/1.22.1\r\nContent-Type: text/html\r\n"
    "Transfer-Encoding: chunked\r\nConnection: keep-alive\r\n\r\n"
    "5\r\nhello\r\n0\r\n\r\n";

TEST(HttpCommand, Smoke) {
    CKTHTTPCommand c;
    CKTString body;
    const int n = static_cast<int>(kChunked.size());
    EXPECT_EQ(c.RecvResponse(kChunked.data(), n, &body), n - 2);
    EXPECT_EQ(Text(body), "hello");
    EXPECT_TRUE(c.IsCompleted());
}

}  // namespace
