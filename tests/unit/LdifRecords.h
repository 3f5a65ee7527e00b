// Records of LDIF texts, for the tests of its reader.
#ifndef SOLVANE_TESTS_UNIT_LDIF_RECORDS_H
#define SOLVANE_TESTS_UNIT_LDIF_RECORDS_H

#include "Faults.h"

#include <solvane/ldap/LDAPLdif.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

namespace SolvaneTest {

using Record = Solvane::LDAPLdifRecord;

/// A source that returns at most `most` bytes a call.
inline Solvane::LDAPLdifReader::Source sourceOf(std::string const& text, std::size_t most = 7)
{
    return [text, most, position = std::size_t{0}](char* buffer, std::size_t size) mutable {
        std::size_t const count = text.copy(buffer, std::min(size, most), position);
        position += count;
        return count;
    };
}

inline std::vector<Record> recordsIn(std::string const& text,
                                     Solvane::LDAPLdifReader::Options const& options = {})
{
    Solvane::LDAPLdifReader reader(sourceOf(text), options);
    std::vector<Record> records;
    for (Record record; reader.next(record);) {
        records.push_back(record);
    }
    return records;
}

/// The only record of a text.
inline Record recordIn(std::string const& text,
                       Solvane::LDAPLdifReader::Options const& options = {})
{
    return recordsIn(text, options).at(0);
}

/// The text of the error of the first record that has one.
inline std::string errorIn(std::string const& text,
                           Solvane::LDAPLdifReader::Options const& options = {})
{
    auto const thrown = thrownBy([&] { recordsIn(text, options); });
    EXPECT_THAT(thrown, IsFault("Ldif.cpp", 73, 2, 0));
    EXPECT_THAT(
        thrown.stringParameter(),
        testing::AllOf(testing::StartsWith("line " + std::to_string(thrown.intParameter()) + ": "),
                       testing::HasSubstr("; ")));
    return thrown.stringParameter();
}

/// The attributes, one "name=value" after the other.
inline std::string textOf(std::vector<Record::Attribute> const& attributes)
{
    std::string text;
    for (Record::Attribute const& each : attributes) {
        text += (text.empty() ? "" : "|") + each.description + '=' + each.value;
    }
    return text;
}

inline auto isChange(Record::Change::Operation operation, std::string const& attribute,
                     std::vector<std::string> const& values)
{
    return testing::AllOf(testing::Field(&Record::Change::operation, operation),
                          testing::Field(&Record::Change::attribute, attribute),
                          testing::Field(&Record::Change::values, values));
}

} // namespace SolvaneTest

#endif
