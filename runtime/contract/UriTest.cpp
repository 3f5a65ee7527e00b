// URIs as values.
#include <solvart/Uri.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace {

using Solvane::Uri;

TEST(AUri, GivesBackItsText)
{
    EXPECT_EQ(Uri("ldap://[127.0.0.1]:389/").asString(), "ldap://[127.0.0.1]:389/");
    EXPECT_EQ(Uri("ldaps://[2001:db8::1]:636/").asString(), "ldaps://[2001:db8::1]:636/");
}

TEST(AUri, StartsEmpty) { EXPECT_EQ(Uri().asString(), ""); }

TEST(AUri, IsNotMadeByConversion) { EXPECT_FALSE((std::is_convertible_v<std::string, Uri>)); }

TEST(AUri, EqualsAnotherOfTheSameText)
{
    Uri const uri("ldap://[127.0.0.1]:389/");

    EXPECT_TRUE(uri == Uri("ldap://[127.0.0.1]:389/"));
    EXPECT_FALSE(uri == Uri("ldaps://[127.0.0.1]:389/"));
    EXPECT_FALSE(uri == Uri("ldap://[127.0.0.1]:390/"));
    EXPECT_FALSE(uri == Uri());
}

TEST(AUri, IsCopiedByAssignment)
{
    Uri target;

    target = Uri("ldap://[127.0.0.1]:389/");

    EXPECT_EQ(target.asString(), "ldap://[127.0.0.1]:389/");
}

} // namespace
