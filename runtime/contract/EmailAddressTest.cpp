// How an e-mail address falls into its parts.
#include <solvart/EmailAddress.h>

#include <gtest/gtest.h>

#include <type_traits>

namespace {

using Solvane::EmailAddress;

struct Parts {
    char const* address;
    char const* local;
    char const* domain;
};

class AnEmailAddress : public testing::TestWithParam<Parts> {};

TEST_P(AnEmailAddress, IsSplitAtItsLastAtSign)
{
    EmailAddress const address(GetParam().address);

    EXPECT_EQ(address.local(), GetParam().local);
    EXPECT_EQ(address.domain(), GetParam().domain);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(OfManyForms, AnEmailAddress, testing::Values(
    Parts{"jdoe@corp.test",         "jdoe",        "corp.test"},
    Parts{"\"j@doe\"@corp.test",    "\"j@doe\"",   "corp.test"},
    Parts{"J.Doe@[127.0.0.1]",      "J.Doe",       "[127.0.0.1]"},
    Parts{"jdoe@",                  "jdoe",        ""},
    Parts{"@corp.test",             "",            "corp.test"},
    Parts{"jdoe",                   "jdoe",        ""},
    Parts{"",                       "",            ""}));
// clang-format on

TEST(AnEmailAddressOfText, IsNotMadeByConversion)
{
    EXPECT_FALSE((std::is_convertible_v<std::string, EmailAddress>));
}

} // namespace
