#include <KTBase/KTHttp.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "KTHeap.h"
#include "KTHttpDigest.h"
#include "KTTestBytes.h"
#include "KTTestLoad.h"

namespace {

/// The value of name in an Authorization value, without quotes.
std::string Value(const std::string& text, const std::string& name) {
    const std::size_t begin = text.find(' ' + name + '=');
    if (begin == std::string::npos)
        return "-";
    const std::size_t value = begin + name.size() + 2;
    const bool quoted = text[value] == '"';
    return text.substr(value + quoted, text.find(quoted ? "\"," : ",", value) - value - quoted);
}

TEST(HttpDigest, GivesTheResponsesOfTheStandard) {
    // RFC 7616, section 3.9.1
    KTHttpDigest from = {false,
                         "Mufasa",
                         "http-auth@example.org",
                         "Circle of Life",
                         "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v",
                         "GET",
                         "/dir/index.html",
                         "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ",
                         1};
    for (const char* response :
         {"8ca523f5e9506fed4657c9700eebdbec",
          "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1"}) {
        char out[kKTHttpDigestBytes];
        ASSERT_TRUE(KTHttpDigestResponse(from, out));
        EXPECT_STREQ(out, response);
        from.sha256 = true;
    }
}

TEST(HttpAuthen, WritesAndReadsBasic) {
    CKTHTTPAuthen authen;
    EXPECT_EQ(authen.GetAuthenRequBasic(), nullptr);
    authen.SetUser("open sesame", "Aladdin");
    authen.SetUser(authen.GetPassword(), authen.GetUser());
    EXPECT_STREQ(authen.GetAuthenRequBasic(),  // RFC 7617, section 2
                 "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
    authen.SetUser("u", nullptr);
    EXPECT_STREQ(authen.GetAuthenRequBasic(), "Basic dTo=");
    const struct {
        const char* value;
        int result;
        const char* credentials;
    } rows[] = {
        {"Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==", 0, "Aladdin|open sesame"},
        {"bASIC   dTpwOnE=", 0, "u|p:q"},
        {"Basic dXNlcg==", 0, "user|-"},
        {"Basic OnA=", 0, "|p"},
        {"Basic ", -1, "u|-"},
        {"Digest username=\"u\"", -10, "u|-"},
    };
    for (const auto& row : rows) {
        CKTHTTPAuthen server(authen);
        EXPECT_EQ(server.ParseRequest(row.value), row.result) << row.value;
        EXPECT_EQ(Or(server.GetUser()) + '|' + Or(server.GetPassword()), row.credentials);
    }
}

TEST(HttpAuthen, TakesRealmAndNonceInThatOrderOnly) {
    const struct {
        const char* challenge;
        int result;
        const char* fields;
    } rows[] = {
        {"Digest realm=\"r s\", nonce=\"n,\"", 0, "digest r s|n,"},
        {"digest  REALM=\"r\",nonce=\"n\", qop=\"auth\"", 0, "digest r|n"},
        {"Digest realm=\"r\", nonce=\"n", 0, "digest r|n"},
        {"Basic realm=\"cams \"1\"\"", 0, "basic cams |old"},  // as nginx 1.22.1 writes it
        {"Digest nonce=\"n\", realm=\"r\"", -1, "digest old|old"},
        {"Digest realm=\"r\", charset=\"UTF-8\", nonce=\"n\"", -1, "digest old|old"},
        {"Digest realm=\"r\", nonce=\"\"", -1, "digest old|old"},
        {"Digest realm=\"r\" nonce=\"n\"", -1, "digest old|old"},
        {" Basic realm=\"r\"", -1, "digest old|old"},
        {"Basic realm=r", -1, "digest old|old"},
    };
    for (const auto& row : rows) {
        CKTHTTPAuthen authen;
        authen.SetUser("u", "p");
        ASSERT_EQ(authen.ParseRespDigest("Digest realm=old, nonce=old, qop=auth"), 0);
        EXPECT_EQ(authen.ParseResponse(row.challenge), row.result) << row.challenge;
        EXPECT_EQ((authen.IsBasic() ? "basic " : "digest ") + Or(authen.GetRealm()) + '|' +
                      Or(authen.GetNonce()),
                  row.fields);
        EXPECT_EQ(Value(authen.GetRequDigestResult("GET", "/"), "qop"),
                  row.result == 0 ? "-" : "auth");
    }
}

TEST(HttpAuthen, AnswersWithAndWithoutQop) {
    CKTHTTPAuthen authen;
    CKTString key("/dir/index.html");
    authen.SetUser("Mufasa", "Circle Of Life");
    ASSERT_EQ(authen.ParseRespDigest("x Digest foo, =, qop=\"auth,auth-int\" , Nonce = "
                                     "dcd98b7102dd2f0e8b11d0f600bfb0c093 ,"
                                     "realm=\"testrealm@host.com\""),
              0);
    // The responses, here and with an empty cnonce: by OpenSSL's md5 over the same texts.
    const std::string plain =
        "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", "
        "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", uri=\"/dir/index.html\", ";
    EXPECT_EQ(authen.GetAuthenRequDigest("GET", "/dir/index.html"),
              plain + "response=\"670fd8c2df070c60b045671b8b24ff02\"");
    EXPECT_TRUE(authen.GetDigestKey(key, "GET", key.GetBuffer()));
    EXPECT_STREQ(key.GetBuffer(), "feee16a35faef0a0371c7210e4bdb6a5");
    std::string cnonce[2];
    for (unsigned int i = 0; i < 2; ++i) {
        const std::string full = authen.GetRequDigestResult("GET", "/dir/index.html");
        cnonce[i] = Value(full, "cnonce");
        char response[kKTHttpDigestBytes];
        ASSERT_TRUE(KTHttpDigestResponse({false, "Mufasa", "testrealm@host.com", "Circle Of Life",
                                          "dcd98b7102dd2f0e8b11d0f600bfb0c093", "GET",
                                          "/dir/index.html", cnonce[i].c_str(), i + 1},
                                         response));
        EXPECT_EQ(full, plain + "cnonce=\"" + cnonce[i] + "\", nc=0000000" + std::to_string(i + 1) +
                            ", qop=\"auth,auth-int\", response=\"" + response + '"');
    }
    EXPECT_NE(cnonce[0], cnonce[1]);
    const CKTHTTPAuthen copy(authen);
    EXPECT_EQ(authen.ParseRespDigest("Digest stale=TRUE, realm=\"\", qop=auth"), 0);
    EXPECT_EQ(Value(authen.GetRequDigestResult("GET", "/"), "nc"), "00000003");
    EXPECT_EQ(authen.ParseRespDigest("Digest qop=auth, stale=false, qop=\"open"), 0);
    EXPECT_EQ(Value(authen.GetRequDigestResult("GET", "/"), "nc"), "00000001");
    EXPECT_STREQ(authen.GetNonce(), nullptr);
    authen = copy;
    EXPECT_EQ(Value(authen.GetRequDigestResult("GET", "/"), "nc"), "00000003");
    EXPECT_EQ(authen.ParseRespDigest("Basic realm=\"r\""), -4);
    authen.SetUser("", "p");
    EXPECT_EQ(authen.GetRequDigestResult("GET", "/"), nullptr);
}

TEST(HttpAuthen, ChoosesTheStrongestOfAllChallenges) {
    const std::string basic = "Basic realm=\"b\"";
    const std::string md5 = "Digest nonce=\"m\", algorithm=MD5 , realm=\"r\", qop=\"auth\"";
    const std::string sha = "digest qop=\"auth-int, auth\",algorithm=SHA-256,nonce=\"s\",realm=r";
    const struct {
        std::vector<std::string> challenges;
        int result;          // of the last
        std::string answer;  // its realm, nonce, algorithm, qop, nc, opaque
    } rows[] = {
        {{basic + ", " + md5 + ", " + sha}, 0, "r s SHA-256 auth 00000001 -"},
        {{sha, md5, basic}, 0, "r s SHA-256 auth 00000001 -"},
        {{"Negotiate, NTLM TlRM==, Foo a b, " + md5}, 0, "r m MD5 auth 00000001 -"},
        {{"Digest realm=\"a\\\"b, Basic\", nonce=\"x\", opaque=\"o\\\\p\""},
         0,
         "a\\\"b, Basic x - - - o\\\\p"},
        {{md5, "Digest realm=\"r\", nonce=\"new\", stale=true"}, 0, "r new - - - -"},
        {{md5, "Digest realm=\"other\", nonce=\"new\""}, 0, "r m MD5 auth 00000001 -"},
        {{"Digest realm=r, nonce=n, algorithm=MD5-sess"}, -10, ""},
        {{"Digest realm=r, nonce=n, algorithm=SHA-512-256"}, -10, ""},
        {{"Digest realm=r, nonce=n, qop=\"auth-int\", x=\"auth\""}, -10, ""},
        {{"Digest realm=r"}, -10, ""},
        {{"Digest nonce=n"}, -10, ""},
        {{"Bearer Basic"}, -10, ""},
        {{"Bearer realm=\"Basic realm=x\""}, -10, ""},
        {{md5, ",,\"Basic\"=,"}, -10, "r m MD5 auth 00000001 -"},
    };
    for (const auto& row : rows) {
        CKTHTTPAuthen authen;
        authen.SetUser("u\"", "p");
        int result = 0;
        for (const std::string& challenge : row.challenges)
            result = authen.ParseChallenge(challenge.c_str());
        EXPECT_EQ(result, row.result) << row.challenges.back();
        const std::string value = Or(authen.GetAuthorization("GET", "/"));
        std::string answer;
        for (const char* name : {"realm", "nonce", "algorithm", "qop", "nc", "opaque"})
            answer += Value(value, name) + ' ';
        EXPECT_EQ(value == "-" ? "" : answer.substr(0, answer.size() - 1), row.answer) << value;
        EXPECT_EQ(value.find("Digest username=\"u\\\"\", "), value == "-" ? value.npos : 0);
    }
    CKTHTTPAuthen authen;
    authen.SetUser("Aladdin", "open sesame");
    EXPECT_EQ(authen.GetAuthorization("GET", "/"), nullptr);
    EXPECT_EQ(authen.ParseChallenge("Negotiate, Basic"), 0);
    EXPECT_STREQ(authen.GetAuthorization("GET", "/"), "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
    authen.ParseChallenge(md5.c_str());
    authen.GetAuthorization("GET", "/");
    EXPECT_EQ(Value(authen.GetAuthorization("GET", "/"), "nc"), "00000002");
    authen.ParseChallenge("Digest nonce=new, realm=r, qop=auth");
    EXPECT_EQ(Value(authen.GetAuthorization("GET", "/"), "nc"), "00000001");
    EXPECT_EQ(authen.GetAuthorization("GET", "/\r\n"), nullptr);
}

TEST(HttpAuthen, CutAndBrokenChallengesEndInAStatedCode) {
    const std::string seeds[] = {
        // both lines of lighttpd 1.4.69 in one
        "Digest realm=\"cams\", charset=\"UTF-8\", algorithm=MD5, nonce=\"6b03:1cbc\", "
        "qop=\"auth\", Digest realm=\"c\\\"s\", algorithm=SHA-256, nonce=\"6b\", qop=\"auth\"",
        "Digest realm=\"Camera 1\", nonce=\"66b4b0a4e8c5a1f2\", stale=false",
        "Basic dXNlcjpwYXNz",
        "Negotiate YII=, Basic realm=\"cams\"",
    };
    const auto check = [](const std::string& text) {
        const std::vector<char> exact(text.c_str(), text.c_str() + text.size() + 1);
        CKTHTTPAuthen authen, full;
        authen.SetUser("u", "p");
        full.SetUser("u", "p");
        const int simple = authen.ParseResponse(exact.data());
        const int digest = authen.ParseRespDigest(exact.data());
        const int request = authen.ParseRequest(exact.data());
        const int list = full.ParseChallenge(exact.data());
        EXPECT_TRUE((simple == 0 || simple == -1) && (digest == 0 || digest == -4)) << text;
        EXPECT_TRUE(request == 0 || request == -1 || request == -10) << text;
        const bool answers = full.GetAuthorization("GET", "/") != nullptr;
        EXPECT_TRUE(list == 0 || (list == -10 && !answers)) << text;
    };
    std::mt19937 random(3);
    for (const std::string& seed : seeds) {
        for (unsigned int i = 0; i < KTTestLoad(20000) + seed.size(); ++i) {
            std::string text = seed.substr(0, i);
            for (unsigned int n = i < seed.size() ? 0 : 1 + random() % 3; n > 0; --n)
                text[random() % text.size()] = "\", =\\\tD:\xff"[random() % 9];
            check(text);
        }
    }
    for (const char* filling : {"\"", ",", "=", "a ", "Digest ", "\\\"", "a=\"", "Basic,"}) {
        std::string text = "Digest ";
        while (text.size() < 1000000 / KTBASE_LOAD_DIVISOR)
            text += filling;
        check(text);
    }
}

TEST(HttpAuthen, ChangesNothingWithoutMemory) {
    const char* const challenge = "Digest realm=\"new\", nonce=\"n\", opaque=\"o\", qop=\"auth\"";
    const auto run = [challenge](CKTHTTPAuthen& authen, unsigned int call) {
        return call == 0   ? authen.SetUser("new", "new")
               : call == 1 ? authen.ParseRequest("Basic bmV3OnA=")
               : call == 2 ? authen.SetRealmNonce("new", "new")
               : call == 3 ? authen.ParseResponse(challenge)
               : call == 4 ? authen.ParseRespDigest(challenge)
                           : authen.ParseChallenge(challenge);
    };
    for (unsigned int call = 0, nth = 1; call < 6; ++nth) {
        CKTHTTPAuthen authen;
        authen.SetUser("old", "old");
        authen.SetRealmNonce("old", "old");
        KTHeapFailAt(nth);
        const int result = run(authen, call);
        KTHeapFailAt(0);
        ASSERT_TRUE(result == 0 || result == -6) << call;
        EXPECT_STREQ(call < 2 ? authen.GetUser() : authen.GetRealm(), result == 0 ? "new" : "old");
        if (result == 0)
            nth = 0, ++call;
    }
    bool all = false;
    for (unsigned int nth = 1; !all; ++nth) {
        CKTHTTPAuthen authen;
        authen.SetUser("u", "p");
        authen.ParseChallenge(challenge);
        KTHeapFailAt(nth);
        all = authen.GetAuthorization("GET", "/") != nullptr;
        const CKTHTTPAuthen copy(authen);
        KTHeapFailAt(0);
        EXPECT_TRUE(copy.GetUser() == nullptr || Or(copy.GetRealm()) == "new");
        all = all && copy.GetUser() != nullptr;
    }
}

}  // namespace
