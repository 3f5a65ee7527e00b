// Exit statuses, their weight, and the outcome of each LDAP result code.
#include "Outcome.h"

#include <gmock/gmock.h>

#include <vector>

namespace Solvane::Tool {
namespace {

std::vector<int> codesWith(Outcome outcome, Verdict (*verdictOn)(int))
{
    std::vector<int> codes;
    for (int code = -18; code <= 123; ++code) {
        if (verdictOn(code).outcome == outcome) {
            codes.push_back(code);
        }
    }
    return codes;
}

TEST(Outcomes, HaveTheExitStatusOfTheirKind)
{
    std::vector<Outcome> const outcomes = {
        Outcome::found,        Outcome::notFound, Outcome::badInput,      Outcome::refused,
        Outcome::tryLater,     Outcome::denied,   Outcome::configuration, Outcome::usage,
        Outcome::outputFailed, Outcome::internal};

    std::vector<int> statuses;
    statuses.reserve(outcomes.size());
    for (Outcome const outcome : outcomes) {
        statuses.push_back(exitStatusOf(outcome));
    }

    EXPECT_THAT(statuses, testing::ElementsAre(0, 1, 65, 69, 75, 77, 78, 64, 74, 70));
}

TEST(Outcomes, AreDecidedByTheWorst)
{
    std::vector<Outcome> const byWeight = {
        Outcome::found,    Outcome::notFound, Outcome::badInput,      Outcome::refused,
        Outcome::tryLater, Outcome::denied,   Outcome::configuration, Outcome::usage};

    for (std::size_t heavy = 0; heavy < byWeight.size(); ++heavy) {
        for (std::size_t light = 0; light <= heavy; ++light) {
            EXPECT_EQ(worse(byWeight[light], byWeight[heavy]), byWeight[heavy]);
            EXPECT_EQ(worse(byWeight[heavy], byWeight[light]), byWeight[heavy]);
        }
    }
}

TEST(SearchVerdicts, NeverSayThatAnEntryWasFoundOrNot)
{
    EXPECT_THAT(codesWith(Outcome::found, verdictOnSearch), testing::IsEmpty());
    EXPECT_THAT(codesWith(Outcome::notFound, verdictOnSearch), testing::IsEmpty());
}

TEST(SearchVerdicts, AreTryLaterForCodesWithoutALastingCause)
{
    for (int const code : {-1, -5, 1, 3, 4, 11, 51, 52, 80, 123}) {
        EXPECT_EQ(verdictOnSearch(code).outcome, Outcome::tryLater) << code;
    }
}

TEST(SearchVerdicts, TellLastingCausesApart)
{
    EXPECT_THAT(codesWith(Outcome::badInput, verdictOnSearch),
                testing::ElementsAre(-7, 16, 17, 18, 19, 20, 21, 34));
    EXPECT_THAT(codesWith(Outcome::refused, verdictOnSearch), testing::ElementsAre(9, 10, 53));
    EXPECT_THAT(codesWith(Outcome::denied, verdictOnSearch),
                testing::ElementsAre(7, 8, 13, 48, 49, 50));
    EXPECT_THAT(codesWith(Outcome::configuration, verdictOnSearch),
                testing::ElementsAre(2, 32, 33, 36));
}

TEST(BindVerdicts, TakeAMissingEntryForTheBindDn)
{
    EXPECT_THAT(codesWith(Outcome::denied, verdictOnBind),
                testing::ElementsAre(7, 8, 13, 32, 48, 49, 50));
}

} // namespace
} // namespace Solvane::Tool
