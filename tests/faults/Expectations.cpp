// The places and codes are literals: independent of the library's own tables.
#include "Expectations.h"

#include <algorithm>
#include <iterator>

namespace SolvaneTest {

namespace {

/// The engine distinguishes an invalid message from a lost connection. Which one a disturbance
/// causes may depend on where the bytes are cut.
Accepted const brokenForEngine = {"TryLater -1", "TryLater -4"};

/// A failure of the bind, as each column reports it.
Accepted ofBind(Column column, std::string const& place, std::string const& engine,
                std::string const& tool)
{
    switch (column) {
    case Column::pool:
        return {"Connection.cpp:602 (4/0) < " + place};
    case Column::query:
        return {"error " + place.substr(0, place.find(' '))};
    case Column::engine:
    case Column::submit:
    case Column::verify:
        return {engine};
    case Column::tool:
        return {tool};
    default:
        return {place};
    }
}

/// The places of a failed request, in the columns that report them.
struct Places {
    Accepted lost;       ///< the connection, while the answer is awaited
    Accepted notSent;    ///< the connection was lost before
    Accepted unreadable; ///< the answer is malformed
};

Places placesOf(Column column)
{
    // Common to all operations of their family.
    Accepted const unreadable = {"Operation.cpp:103 (4/6)", "Operation.cpp:112 (1/6)"};
    switch (column) {
    case Column::add:
        return {{"Add.cpp:137 (4/3) < Add.cpp:124 (4/3)"},
                {"Add.cpp:83 (1/7)"},
                {"Add.cpp:137 (4/3) < Result.cpp:577 (1/6)",
                 "Add.cpp:137 (4/3) < Result.cpp:541 (2/6)"}};
    case Column::modify:
        return {{"Changes.cpp:165 (4/8)"}, {"Changes.cpp:158 (4/8)"}, unreadable};
    case Column::remove:
        return {{"Changes.cpp:38 (4/9)"}, {"Changes.cpp:31 (4/9)"}, unreadable};
    case Column::compare:
        return {{"Changes.cpp:68 (4/11)"}, {"Changes.cpp:61 (4/11)"}, unreadable};
    case Column::stream:
        return {{"SearchStream.cpp:91 (4/4)"},
                {"SearchStream.cpp:84 (4/4)"},
                anyOf({unreadable,
                       {"SearchStream.cpp:102 (4/6)", "SearchStream.cpp:120 (4/6)",
                        "Controls.cpp:84 (1/6)"}})};
    default:
        return {{"Search.cpp:332 (4/4)"},
                {"Search.cpp:270 (4/4)"},
                {"Result.cpp:577 (1/6)", "Result.cpp:541 (2/6)", "Result.cpp:646 (4/5)"}};
    }
}

/// A failure of a request after the bind, at these places.
Accepted ofRequest(Column column, Accepted const& places)
{
    switch (column) {
    case Column::bind:
    case Column::verify:
        return success(column);
    case Column::query: {
        Accepted accepted;
        for (std::string const& place : places) {
            accepted.insert("error " + place.substr(0, place.find(' ')));
        }
        return accepted;
    }
    case Column::engine:
    case Column::submit:
        return brokenForEngine;
    case Column::tool:
        return {"exit 75"};
    default:
        return places;
    }
}

Accepted silentIn(Step step, Column column)
{
    switch (column) {
    case Column::query:
        return {step == Step::bind ? "unconfirmed" : "failed", "failed"};
    case Column::engine:
    case Column::submit:
    case Column::verify:
        return {"TryLater -5"};
    case Column::tool:
        return {"exit 75"};
    default:
        return {step == Step::bind ? "unconfirmed" : "no answer"};
    }
}

bool takesPart(Step step, Column column)
{
    bool const asksWho = isLookup(column) || column == Column::tool;
    bool const isNextPage = step == Step::nextPage && column == Column::stream;
    return step == Step::bind || step == requestOf(column) || isNextPage ||
           (step == Step::whoAmI && asksWho);
}

template <std::size_t count> bool holds(long const (&codes)[count], long code)
{
    return std::find(std::begin(codes), std::end(codes), code) != std::end(codes);
}

// The table of docs/guide/lookup.md, code by code; any other code is "try later".
constexpr long refusals[] = {-11, 7, 8, 9, 10, 13, 48, 49, 50, 53};
constexpr long misconfigurations[] = {-9, -7, 2,  16, 17, 18, 19, 20, 21, 32,
                                      33, 34, 36, 64, 65, 66, 67, 69, 71};
// Those of docs/guide/tool.md.
constexpr long denials[] = {-11, 7, 8, 13, 48, 49, 50};
constexpr long badInputs[] = {-7, 16, 17, 18, 19, 20, 21, 34, 64, 65, 66, 67, 69, 71};

std::string engineWord(long code, bool isBind)
{
    bool const isRefusal = holds(refusals, code) || (isBind && code == 32);
    std::string const outcome = isRefusal                        ? "Refused "
                                : holds(misconfigurations, code) ? "Misconfigured "
                                                                 : "TryLater ";
    return outcome + std::to_string(code);
}

std::string toolWord(long code, bool isBind)
{
    bool const isRefusal = holds(refusals, code) || (isBind && code == 32);
    if (isRefusal) {
        return holds(denials, code) || code == 32 ? "exit 77" : "exit 69";
    }
    if (holds(misconfigurations, code)) {
        return holds(badInputs, code) ? "exit 65" : "exit 78";
    }
    return "exit 75";
}

} // namespace

std::string always(Column) { return std::string(); }

Accepted success(Column column)
{
    switch (column) {
    case Column::bind:
        return {"bound"};
    case Column::add:
        return {"added"};
    case Column::modify:
        return {"modified"};
    case Column::remove:
        return {"deleted"};
    case Column::compare:
        return {"true"};
    case Column::verify:
        return {"accepted", "denied"};
    case Column::tool:
        return {"exit 0"};
    default:
        return {"found"};
    }
}

Accepted connectTrouble(Column column, Trouble trouble)
{
    return ofBind(column, "Connection.cpp:241 (4/1)",
                  trouble == Trouble::silent ? "TryLater -5" : "TryLater -1", "exit 75");
}

Accepted troubleIn(Step step, Column column, Trouble trouble)
{
    if (trouble == Trouble::none || !takesPart(step, column)) {
        return success(column);
    }
    if (trouble == Trouble::silent) {
        return silentIn(step, column);
    }
    if (step == Step::bind && usesEngine(column)) {
        return brokenForEngine;
    }
    if (step == Step::bind) {
        return ofBind(column, "Connection.cpp:315 (4/3)", std::string(), "exit 75");
    }
    Places const places = placesOf(column);
    return ofRequest(column,
                     step == Step::nextPage ? anyOf({places.lost, places.notSent}) : places.lost);
}

Accepted troubleAfter(Step step, Column column)
{
    return step == Step::page ? troubleIn(Step::nextPage, column, Trouble::broken) : Accepted();
}

Accepted brokenBeforeRequest(Column column)
{
    Places const places = placesOf(column);
    return ofRequest(column, anyOf({places.notSent, places.lost}));
}

Accepted unreadable(Step step, Column column)
{
    if (!takesPart(step, column)) {
        return success(column);
    }
    if (usesEngine(column)) {
        return brokenForEngine;
    }
    if (step == Step::bind) {
        return anyOf({ofBind(column, "Result.cpp:577 (1/6)", std::string(), "exit 75"),
                      ofBind(column, "Result.cpp:541 (2/6)", std::string(), "exit 75")});
    }
    return ofRequest(column, placesOf(column).unreadable);
}

/// The server's judgement counts, whatever the password is.
Accepted codeOfLogin(long code)
{
    constexpr long judgements[] = {19, 48, 49};
    if (code == 0) {
        return {"accepted", "wrong accepted"};
    }
    return holds(judgements, code) ? Accepted{"right denied", "denied"}
                                   : Accepted{engineWord(code, true)};
}

Accepted codeOfBind(Column column, long code)
{
    if (column == Column::verify) {
        return codeOfLogin(code);
    }
    if (code == 0) {
        return success(column);
    }
    constexpr long invalidCredentials = 49;
    std::string const engine = engineWord(code, true);
    std::string const tool = toolWord(code, true);
    if (code == invalidCredentials) {
        return ofBind(column, "Connection.cpp:297 (4/3)", engine, tool);
    }
    switch (column) {
    case Column::pool:
        return {"refused"};
    case Column::query:
        return {"failed"};
    case Column::engine:
    case Column::submit:
        return {engine};
    case Column::tool:
        return {tool};
    default:
        return {"refused " + std::to_string(code)};
    }
}

Accepted codeOfRequest(Column column, long code)
{
    bool const isAnswered = column != Column::compare && code == 0;
    if (isAnswered || column == Column::bind || column == Column::verify) {
        return success(column);
    }
    constexpr long compareFalse = 5;
    constexpr long compareTrue = 6;
    switch (column) {
    case Column::compare:
        return {code == compareTrue    ? "true"
                : code == compareFalse ? "false"
                                       : "code " + std::to_string(code)};
    case Column::engine:
    case Column::submit:
        return {engineWord(code, false)};
    case Column::tool:
        return {toolWord(code, false)};
    default:
        return {"code " + std::to_string(code)};
    }
}

Accepted anyOf(std::initializer_list<Accepted> accepted)
{
    Accepted all;
    for (Accepted const& each : accepted) {
        all.insert(each.begin(), each.end());
    }
    return all;
}

} // namespace SolvaneTest
