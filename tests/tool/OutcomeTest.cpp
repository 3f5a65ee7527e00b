// Exit statuses, their weight, and the outcome of each LDAP result code.
#include "Outcome.h"

#include <solvane/lookup/Answer.h>

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

namespace Solvane::Tool {
namespace {

using Kind = Lookup::Outcome;

std::vector<int> codesWith(Outcome outcome, std::function<Outcome(int)> const& outcomeOfCode)
{
    std::vector<int> codes;
    for (int code = -18; code <= 123; ++code) {
        if (outcomeOfCode(code) == outcome) {
            codes.push_back(code);
        }
    }
    return codes;
}

/// The outcome of a step that ended so, by its code.
std::function<Outcome(int)> ended(Kind kind)
{
    return [kind](int code) { return outcomeOf(Lookup::Verdict{kind, code, {}}); };
}

Outcome outcomeOfAnswer(Kind kind, int code)
{
    Lookup::Answer answer;
    answer.outcome = kind;
    answer.code = code;
    return outcomeOf(answer);
}

TEST(Outcomes, HaveTheExitStatusOfTheirKind)
{
    std::vector<Outcome> const outcomes = {
        Outcome::found,   Outcome::notFound,     Outcome::exists,  Outcome::badInput,
        Outcome::refused, Outcome::tryLater,     Outcome::denied,  Outcome::configuration,
        Outcome::usage,   Outcome::outputFailed, Outcome::internal};

    std::vector<int> statuses;
    statuses.reserve(outcomes.size());
    for (Outcome const outcome : outcomes) {
        statuses.push_back(exitStatusOf(outcome));
    }

    EXPECT_THAT(statuses, testing::ElementsAre(0, 1, 73, 65, 69, 75, 77, 78, 64, 74, 70));
}

TEST(Outcomes, AreDecidedByTheWorst)
{
    std::vector<Outcome> const byWeight = {
        Outcome::found,    Outcome::notFound,      Outcome::exists,
        Outcome::badInput, Outcome::refused,       Outcome::tryLater,
        Outcome::denied,   Outcome::configuration, Outcome::usage};

    for (std::size_t heavy = 0; heavy < byWeight.size(); ++heavy) {
        for (std::size_t light = 0; light <= heavy; ++light) {
            EXPECT_EQ(worse(byWeight[light], byWeight[heavy]), byWeight[heavy]);
            EXPECT_EQ(worse(byWeight[heavy], byWeight[light]), byWeight[heavy]);
        }
    }
}

TEST(AnAnswer, HasTheOutcomeOfItsKind)
{
    EXPECT_EQ(outcomeOfAnswer(Kind::Found, 0), Outcome::found);
    EXPECT_EQ(outcomeOfAnswer(Kind::NotFound, 0), Outcome::notFound);
    EXPECT_EQ(outcomeOfAnswer(Kind::Skipped, 0), Outcome::notFound);
    EXPECT_EQ(outcomeOfAnswer(Kind::BadKey, 0), Outcome::badInput);
    EXPECT_EQ(outcomeOfAnswer(Kind::TryLater, 4), Outcome::tryLater);
    EXPECT_EQ(outcomeOfAnswer(Kind::Refused, 53), Outcome::refused);
    EXPECT_EQ(outcomeOfAnswer(Kind::Misconfigured, 32), Outcome::configuration);
}

TEST(ARefusal, IsOneOfAccessForSomeCodes)
{
    EXPECT_THAT(codesWith(Outcome::denied, ended(Kind::Refused)),
                testing::ElementsAre(-11, 7, 8, 13, 32, 48, 49, 50));
    EXPECT_EQ(codesWith(Outcome::refused, ended(Kind::Refused)).size(), 142U - 8);
}

TEST(AMisconfiguration, IsOneOfTheDataForSomeCodes)
{
    EXPECT_THAT(codesWith(Outcome::badInput, ended(Kind::Misconfigured)),
                testing::ElementsAre(-7, 16, 17, 18, 19, 20, 21, 34, 64, 65, 66, 67, 69, 71));
    EXPECT_EQ(codesWith(Outcome::configuration, ended(Kind::Misconfigured)).size(), 142U - 14);
}

TEST(AnAdd, HasTheOutcomeOfItsCode)
{
    EXPECT_THAT(codesWith(Outcome::found, outcomeOfAdd), testing::ElementsAre(0));
    EXPECT_THAT(codesWith(Outcome::exists, outcomeOfAdd), testing::ElementsAre(68));
    EXPECT_THAT(codesWith(Outcome::badInput, outcomeOfAdd),
                testing::ElementsAre(-9, -7, 16, 17, 18, 19, 20, 21, 34, 64, 65, 66, 67, 69, 71));
    EXPECT_THAT(codesWith(Outcome::refused, outcomeOfAdd), testing::ElementsAre(9, 10, 53));
    EXPECT_THAT(codesWith(Outcome::denied, outcomeOfAdd),
                testing::ElementsAre(-11, 7, 8, 13, 48, 49, 50));
    EXPECT_THAT(codesWith(Outcome::configuration, outcomeOfAdd),
                testing::ElementsAre(2, 32, 33, 36));
}

TEST(Remedies, AreThereForWhateverIsWrong)
{
    for (Kind const kind : {Kind::BadKey, Kind::TryLater, Kind::Refused, Kind::Misconfigured}) {
        for (int code = -18; code <= 123; ++code) {
            EXPECT_STRNE(remedyFor(Lookup::Verdict{kind, code, {}}), "") << code;
        }
    }
    for (int code = -18; code <= 123; ++code) {
        EXPECT_EQ(std::string(remedyForAdd(code)).empty(), code == 0) << code;
    }
}

TEST(Remedies, NameOptionAndPackageWhereAuthoritiesAreMissing)
{
    std::string const remedy = remedyFor(Lookup::Verdict{Kind::Misconfigured, -9, {}});

    EXPECT_THAT(remedy, testing::HasSubstr("--tls-ca"));
    EXPECT_THAT(remedy, testing::HasSubstr("the package ca-certificates"));
}

TEST(Remedies, AreNotThereForWhatIsRight)
{
    for (Kind const kind : {Kind::Found, Kind::NotFound, Kind::Skipped}) {
        EXPECT_STREQ(remedyFor(Lookup::Verdict{kind, 0, {}}), "");
    }
}

} // namespace
} // namespace Solvane::Tool
