#include <KTBase/KTUser.h>
#include <gtest/gtest.h>

TEST(User, OwnsItsTextsAndTakesThemBack) {
    CKTUser user("name", nullptr);
    user.SetPassword("secret");
    CKTUser copy(user);
    copy.SetUsername(copy.GetUsername() + 2);
    copy.SetPassword("");
    EXPECT_STREQ(copy.GetUsername(), "me");
    EXPECT_STREQ(copy.GetPassword(), "");
    EXPECT_STREQ(user.GetUsername(), "name");
    user = *&user;
    EXPECT_STREQ(user.GetPassword(), "secret");
    user = copy;
    copy.Clear();
    EXPECT_STREQ(user.GetUsername(), "me");
    user.SetPassword(nullptr);
    EXPECT_EQ(user.GetPassword(), nullptr);
}

TEST(User, IsFoundByItsNameAlone) {
    const char* const none = nullptr;
    EXPECT_TRUE(CKTUser("a", "p") == "a");
    EXPECT_FALSE(CKTUser("a", "p") == "A" || CKTUser("a", "p") == none || CKTUser() == "");
    EXPECT_TRUE(CKTUser(none, "p") == none && CKTUser("", none) == "");
}
