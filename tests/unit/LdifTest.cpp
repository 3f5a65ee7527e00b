// LDIF: records read in bounded memory, and written as OpenLDAP's tools write them.
#include "Faults.h"
#include "LdifRecords.h"
#include "TemporaryDirectory.h"

#include <solvane/ldap/LDAPLdif.h>

#include <gmock/gmock.h>

#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Solvane;
using namespace std::string_literals;
using SolvaneTest::errorIn;
using SolvaneTest::isChange;
using SolvaneTest::IsFault;
using SolvaneTest::Record;
using SolvaneTest::recordIn;
using SolvaneTest::recordsIn;
using SolvaneTest::sourceOf;
using SolvaneTest::textOf;
using SolvaneTest::thrownBy;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

using Type = Record::Type;
using Operation = Record::Change::Operation;

std::string written(Record const& record)
{
    std::string text;
    LDAPLdif::append(text, record);
    return text;
}

} // namespace

TEST(ReadingLdif, TakesAnyValue)
{
    Record const record = recordIn("dn: cn=a\n"
                                   "a:\n"
                                   "b: \n"
                                   "c::\n"
                                   "d:: AAE=\n"
                                   "e::  /w==  \n"
                                   "f: a:b <c \n"
                                   "g_h;x-y: \xC3\xA4\xFF\n"
                                   "1.2.3: i\r\n"
                                   "j:: YR==\n");

    EXPECT_EQ(textOf(record.attributes),
              "a=|b=|c=|d=\0\x01|e=\xFF|f=a:b <c |g_h;x-y=\xC3\xA4\xFF|1.2.3=i|j=a"s);
}

TEST(ReadingLdif, SkipsEmptyLinesCommentsAndAByteOrderMark)
{
    auto const records = recordsIn("\xEF\xBB\xBF# a\n b\n\n\r\n\ndn: cn=a\n# c\n  d\ncn:\n  e\n\n\n"
                                   "# only\n\ndn: cn=f\n");

    ASSERT_THAT(records, SizeIs(2));
    EXPECT_EQ(records[0].line, 6U);
    EXPECT_EQ(textOf(records[0].attributes), "cn=e");
    EXPECT_EQ(records[1].dn, "cn=f");
    EXPECT_THAT(records[1].attributes, IsEmpty());
    EXPECT_THAT(recordsIn(""), IsEmpty());
    EXPECT_THAT(recordsIn("version: 1"), IsEmpty());
    EXPECT_EQ(recordIn("dn:").dn, "");
}

TEST(ReadingLdif, TakesControlsInEveryForm)
{
    auto const controls = recordIn("dn: cn=a\n"
                                   "control:1.2\n"
                                   "control: 1.3 FALSE\n"
                                   "control: 1.4 true: a b\n"
                                   "control: 1.5:: AAE=\n"
                                   "control: 1.6 :\n"
                                   "changetype: delete\n")
                              .controls;

    ASSERT_THAT(controls, SizeIs(5));
    EXPECT_EQ(controls[0].oid, "1.2");
    EXPECT_FALSE(controls[0].isCritical || controls[1].isCritical || controls[3].isCritical);
    EXPECT_TRUE(controls[2].isCritical);
    EXPECT_EQ(controls[1].value, std::nullopt);
    EXPECT_EQ(controls[2].value, "a b");
    EXPECT_EQ(controls[3].value, "\0\x01"s);
    EXPECT_EQ(controls[4].value, "");
}

TEST(ReadingLdif, TakesChangesWithoutADashAtTheEndAndIncrements)
{
    EXPECT_THAT(
        recordIn("dn: cn=a\nchangetype: modify\nincrement: n\nN: 1\n-\nadd: cn;x\ncn;X: b\n")
            .changes,
        ElementsAre(isChange(Operation::Increment, "n", {"1"}),
                    isChange(Operation::Add, "cn;x", {"b"})));
    EXPECT_THAT(recordIn("dn: cn=a\nchangetype: modify\n").changes, IsEmpty());
    EXPECT_EQ(recordIn("dn: cn=a\nchangetype: MODDN\nnewrdn: cn=b\ndeleteoldrdn: 0\n").type,
              Type::Rename);
}

TEST(ReadingLdif, NamesLineCauseAndRemedyOfAnError)
{
    std::string const form = "the line is not of the form 'attribute: value'; start a continuation "
                             "line with one space, and a comment with '#'";
    std::string const beginning = ", not with dn; start each record with dn:, after an empty line";
    struct {
        std::string text;
        std::string error;
    } const cases[] = {
        {"version: 2\ndn: cn=a\n", "line 1: unsupported LDIF version '2'; write version: 1"},
        {"\n\ncn: a\n", "line 3: the record starts with 'cn'" + beginning},
        {"dn: cn=a\n\nversion: 1\ndn: cn=b\n",
         "line 3: the record starts with 'version'" + beginning},
        {"include: file:///a\n", "line 1: include is not supported; add the files one by one"},
        {"dn:: /w==\n", "line 1: the DN is not valid UTF-8; correct the DN"},
        {"dn:: AA==\n", "line 1: the DN is not valid UTF-8; correct the DN"},
        {"dn:: AAA\n", "line 1: invalid base64; correct the value"},
        {"dn: cn=a\ncn:: A===\n", "line 2: invalid base64; correct the value"},
        {"dn: cn=a\ncn:: AA=A\n", "line 2: invalid base64; correct the value"},
        {"dn: cn=a\ncn:: A A=\n", "line 2: invalid base64; correct the value"},
        {"dn: cn=a\ncn a\n", "line 2: " + form},
        {"dn: cn=a\n: a\n", "line 2: " + form},
        {"dn: cn=a\nc n: a\n", "line 2: invalid attribute name 'c n'; write attribute: value"},
        {"dn: cn=a\ncn: a\0b\n"s,
         "line 2: the line contains a NUL byte; encode the value in base64"},
        {"dn: cn=a\ncn: a\ndn: cn=b\n",
         "line 3: second DN in one record; put an empty line between records"},
        {"dn: cn=a\nchangetype: x\n",
         "line 2: unsupported changetype 'x'; write add, delete, modify or modrdn"},
        {"dn: cn=a\ncontrol: 1.2\ncn: a\n",
         "line 2: a control without a changetype; write changetype: after the controls"},
        {"dn: cn=a\ncontrol: cn\nchangetype: delete\n",
         "line 2: malformed control; write control: OID [true|false][: value]"},
        {"dn: cn=a\ncontrol: 1.2 maybe\nchangetype: delete\n",
         "line 2: malformed control; write control: OID [true|false][: value]"},
        {"dn: cn=a\ncontrol:\nchangetype: delete\n",
         "line 2: malformed control; write control: OID [true|false][: value]"},
        {"dn: cn=a\nchangetype: delete\ncn: a\n",
         "line 3: a line after the end of the change; put an empty line between records"},
        {"dn: cn=a\nchangetype: modify\nput: cn\n",
         "line 3: unsupported change 'put'; write add, delete, replace or increment"},
        {"dn: cn=a\nchangetype: modify\nadd: c n\n",
         "line 3: invalid attribute name 'c n'; write attribute: value"},
        {"dn: cn=a\nchangetype: modify\nadd: cn\n-\n",
         "line 3: the change of cn has no value; give it one"},
        {"dn: cn=a\nchangetype: modify\nadd: cn\ncn: a\nsn: b\n",
         "line 5: expected a value of cn, found sn; end each change with a line '-'"},
        {"dn: cn=a\nchangetype: modify\n-\n", "line 3: " + form},
        {"dn: cn=a\nchangetype: modrdn\n", "line 2: expected newrdn; complete the record"},
        {"dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\nnewsuperior: cn=c\n",
         "line 4: expected deleteoldrdn; complete the record"},
        {"dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 2\n",
         "line 4: deleteoldrdn is not 0 or 1; write 1 to delete the old value"},
        {"dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1\ncn: a\n",
         "line 5: a line after the end of the change; put an empty line between records"},
        {"dn: cn=a\nchangetype: modrdn\nnewrdn:\ndeleteoldrdn: 1\n",
         "line 3: the new RDN is empty; write newrdn: type=value"},
        {"dn: cn=a\nou: a\nchangetype: delete\n",
         "line 3: 'changetype' after the first attribute; write it before the attributes, control "
         "before changetype"},
        {"dn: cn=a\nchangetype: add\nControl: 1.2 true\ncn: a\n",
         "line 3: 'Control' after the first attribute; write it before the attributes, control "
         "before changetype"},
        {"dn:< file:///f\n", "line 1: 'dn:<' is not a line of LDIF; write 'dn:' and the text"},
        {"dn: cn=a\nchangetype:: YWRk\n",
         "line 2: 'changetype::' is not a line of LDIF; write 'changetype:' and the text"},
        {"dn: cn=a\nchangetype: modify\nadd:: Y24=\n",
         "line 3: 'add::' is not a line of LDIF; write 'add:' and the text"},
        {"dn: cn=a\nchangetype: modrdn\nnewrdn:< file:///f\n",
         "line 3: 'newrdn:<' is not a line of LDIF; write 'newrdn:' and the text"},
        {"dn: cn=a\nchangetype: a\x1B\xFF\xC3\xA4\n",
         "line 2: unsupported changetype 'a\\1B\\FF\xC3\xA4'; write add, delete, modify or modrdn"},
        {"dn: cn=a\nchangetype: " + std::string(65, 'x') + "\n",
         "line 2: unsupported changetype '" + std::string(64, 'x') +
             "...'; write add, delete, modify or modrdn"},
    };
    for (auto const& row : cases) {
        EXPECT_EQ(errorIn(row.text), row.error) << row.text;
    }
}

TEST(ReadingLdif, JoinsLinesThatAreFoldedAnywhere)
{
    Record const record = recordIn("d\n n: cn=a\r\n"
                                   "cn:\n : YQ\r\n ==\n"
                                   "# a comment\n  that goes on\n"
                                   "sn: b\n  c\n \n d\n");

    EXPECT_EQ(record.dn, "cn=a");
    ASSERT_THAT(record.attributes, SizeIs(2));
    EXPECT_EQ(record.attributes[0].value, "a");
    EXPECT_EQ(record.attributes[1].value, "b cd");
    EXPECT_EQ(record.attributes[1].line, 8);
}

TEST(ReadingLdif, GoesOnAfterAnInvalidRecord)
{
    LDAPLdifReader reader(sourceOf("dn: cn=a\ncn a\ncn: x\n\ndn: cn=b\n"));
    Record record;

    EXPECT_THAT(thrownBy([&] { reader.next(record); }), IsFault("Ldif.cpp", 73, 2, 0));
    EXPECT_EQ(record.dn, "cn=a");
    EXPECT_EQ(record.line, 1U);
    ASSERT_TRUE(reader.next(record));
    EXPECT_EQ(record.dn, "cn=b");
    EXPECT_EQ(record.line, 5U);
    EXPECT_FALSE(reader.next(record));
    EXPECT_FALSE(reader.next(record));
}

TEST(ReadingLdif, ReportsARecordAsSoonAsItsEmptyLineHasCome)
{
    std::vector<std::string> parts{"dn: cn=a\ncn:", " b\n\n", ""};
    std::size_t calls = 0;
    LDAPLdifReader reader(
        [&](char* buffer, std::size_t size) { return parts.at(calls++).copy(buffer, size); });
    Record record;

    ASSERT_TRUE(reader.next(record));
    EXPECT_EQ(calls, 2U);
    EXPECT_EQ(textOf(record.attributes), "cn=b");
    EXPECT_FALSE(reader.next(record));
}

TEST(ReadingLdif, ContinuesWhereAnExceptionOfTheSourceInterruptedIt)
{
    LDAPLdifReader reader([calls = 0, rest = sourceOf("dn: cn=a\ncn: b\n\n", 4)](
                              char* buffer, std::size_t size) mutable {
        if (++calls == 3) {
            throw std::runtime_error("no input");
        }
        return rest(buffer, size);
    });
    Record record;

    EXPECT_THROW(reader.next(record), std::runtime_error);
    ASSERT_TRUE(reader.next(record));
    EXPECT_EQ(record.dn, "cn=a");
    EXPECT_EQ(textOf(record.attributes), "cn=b");
}

TEST(ReadingLdif, RefusesARecordThatIsTooLargeAndSkipsIt)
{
    LDAPLdifReader::Options options;
    options.maxBytes = 1000;
    std::string const manyLines = [] {
        std::string lines;
        for (int i = 0; i < 500; ++i) {
            lines += "cn: a\n";
        }
        return lines;
    }();
    for (std::string const& large :
         {"cn: " + std::string(100000, 'a') + "\ncn: b\n", "cn: " + std::string(100000, 'a') + "\n",
          manyLines,
          "cn: a\n " + std::string(20000, 'a') + "\n " + std::string(20000, 'a') + "\n"}) {
        for (std::size_t const most : {std::size_t{1}, std::size_t{997}, std::size_t{16384}}) {
            LDAPLdifReader reader(sourceOf("version: 1\ndn: cn=a\n" + large + "\ndn: cn=b\n", most),
                                  options);
            Record record;

            auto const thrown = thrownBy([&] { reader.next(record); });
            EXPECT_THAT(thrown, IsFault("Ldif.cpp", 73, 2, 0));
            EXPECT_THAT(thrown.stringParameter(), HasSubstr("is larger than 1000 bytes; "));
            EXPECT_EQ(record.line, static_cast<unsigned long>(thrown.intParameter()));
            ASSERT_TRUE(reader.next(record)) << most;
            EXPECT_EQ(record.dn, "cn=b");
            EXPECT_FALSE(reader.next(record));
        }
    }
}

TEST(ReadingLdif, LimitsTheFilesOfARecordTogether)
{
    SolvaneTest::TemporaryDirectory const folder;
    std::string const file = (folder.path() / "photo").string();
    std::ofstream(file) << std::string(600, 'x');
    LDAPLdifReader::Options options;
    options.mayReadFiles = true;
    options.maxBytes = 1000;
    std::string const one = "dn: cn=a\ncn:< file://" + file + "\n";

    EXPECT_EQ(recordsIn(one + "\n" + one, options).size(), 2U);
    EXPECT_THAT(errorIn(one + "sn:< file://" + file + "\n", options),
                StartsWith("line 3: the files of this record are larger than 1000 bytes"));
}

TEST(ReadingLdif, SkipsCommentsOfAnyLength)
{
    LDAPLdifReader::Options options;
    options.maxBytes = 1000;
    std::string const comment = "#" + std::string(50000, 'a') + "\n " + std::string(50000, 'b');

    for (std::size_t const most : {std::size_t{1}, std::size_t{997}, std::size_t{16384}}) {
        LDAPLdifReader reader(sourceOf(comment + "\ndn: cn=a\n" + comment + "\r\ncn: b\n", most),
                              options);
        Record record;

        ASSERT_TRUE(reader.next(record)) << most;
        EXPECT_EQ(record.line, 3U);
        EXPECT_EQ(textOf(record.attributes), "cn=b");
    }
}

TEST(ReadingLdif, RefusesALineWithoutEndBeforeItFillsTheMemory)
{
    LDAPLdifReader::Options options;
    options.maxBytes = 100000;
    std::size_t calls = 0;
    LDAPLdifReader reader(
        [&calls](char* buffer, std::size_t size) {
            ++calls;
            std::fill_n(buffer, size, 'a');
            return size;
        },
        options);
    Record record;

    EXPECT_THAT(thrownBy([&] { reader.next(record); }), IsFault("Ldif.cpp", 73, 2, 0));
    EXPECT_LE(calls, 8U);
}

TEST(ReadingLdif, TakesValuesFromFilesIfAllowed)
{
    SolvaneTest::TemporaryDirectory const folder;
    std::string const file = (folder.path() / "photo").string();
    std::ofstream(file) << "\xFF\0photo"s;
    LDAPLdifReader::Options options;
    options.mayReadFiles = true;
    std::string const head = "dn: cn=a\njpegPhoto:< file://";

    EXPECT_EQ(textOf(recordIn(head + file + "\n", options).attributes), "jpegPhoto=\xFF\0photo"s);

    EXPECT_THAT(errorIn(head + file + "\n"), HasSubstr("are not supported"));
    for (char const* const url :
         {"http://localhost/a", "file://host/a", "file:a", "/etc/passwd", "file:", ""}) {
        EXPECT_THAT(errorIn("dn: cn=a\ncn:< "s + url + "\n", options),
                    HasSubstr("is not a file of this machine"))
            << url;
    }
    auto const missing = thrownBy([&] { recordIn(head + file + "x\n", options); });
    EXPECT_THAT(missing, IsFault("Ldif.cpp", 118, 4, 0));
    EXPECT_THAT(missing.stringParameter(),
                AllOf(StartsWith("line 2: cannot open file:///"), HasSubstr("No such file")));
    EXPECT_THAT(thrownBy([&] { recordIn(head + "/\n", options); }), IsFault("Ldif.cpp", 118, 4, 0));
    options.maxBytes = 300;
    EXPECT_THAT(errorIn("dn: cn=a\ncn:< file:///dev/zero\n", options),
                HasSubstr("are larger than 300 bytes"));
}

TEST(WritingLdif, IsWhatWasRead)
{
    std::string const text = "dn: cn=a\n"
                             "control: 1.2 true\n"
                             "control: 1.3 false:: AAE=\n"
                             "changetype: modify\n"
                             "add: cn\ncn: a\ncn:: w6Q=\n-\n"
                             "delete: sn\n-\n"
                             "replace: userPassword\nuserPassword:: c2VjcmV0\n-\n"
                             "increment: n\nn: 1\n-\n"
                             "\n"
                             "dn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\ndeleteoldrdn: 1\n"
                             "newsuperior: dc=c\n"
                             "\n"
                             "dn: cn=a\nchangetype: delete\n"
                             "\n"
                             "dn: cn=a\nchangetype: add\ncn: a\n"
                             "\n"
                             "dn:: Y249w6Q=\ncn: a\ndescription:\n"
                             "\n";
    std::string again;
    for (Record const& record : recordsIn(text)) {
        LDAPLdif::append(again, record);
    }

    EXPECT_EQ(again, text);
}

TEST(WritingLdif, FoldsLinesThatAreReadAsTheSame)
{
    Record record;
    record.dn = "cn=" + std::string(200, 'a');
    std::mt19937 random(28490001);
    for (std::size_t size = 0; size < 300; ++size) {
        std::string value(size, 'x');
        if (size % 3 != 0) {
            std::generate(value.begin(), value.end(),
                          [&random] { return static_cast<char>(random()); });
        }
        record.attributes.push_back({"cn", value, 0});
    }

    std::string const text = written(record);

    EXPECT_EQ(recordIn(text).dn, record.dn);
    EXPECT_EQ(textOf(recordIn(text).attributes), textOf(record.attributes));
    for (std::size_t begin = 0; begin < text.size();) {
        std::size_t const end = text.find('\n', begin);
        ASSERT_LE(end - begin, 78U);
        begin = end + 1;
    }
}

TEST(WritingLdif, FoldsAfterAWidth)
{
    auto const folded = [](std::size_t width) {
        std::string text;
        LDAPLdif::appendLine(text, "description", std::string(100, 'x'), width);
        return text;
    };

    EXPECT_EQ(folded(LDAPLdif::unfolded), "description: " + std::string(100, 'x') + '\n');
    EXPECT_EQ(folded(60),
              "description: " + std::string(47, 'x') + "\n " + std::string(53, 'x') + '\n');
    EXPECT_EQ(folded(78), folded(LDAPLdif::defaultWidth));
    EXPECT_EQ(folded(78).find('\n'), 78);
    for (std::size_t const width : {0UL, 1UL, 2UL}) {
        EXPECT_EQ(folded(width), folded(2)) << width;
    }
}

TEST(WritingLdif, WritesARangeOfValues)
{
    std::string text;
    LDAPLdif::appendLine(text, "member;range=0-1", "cn=a");
    EXPECT_EQ(text, "member;range=0-1: cn=a\n");
    for (char const* const name : {"=", "cn=a", "c=n;range", "=;"}) {
        EXPECT_THAT(thrownBy([&] { LDAPLdif::appendLine(text, name, "b"); }),
                    IsFault("Ldif.cpp", 152, 2, 0))
            << name;
    }
}

TEST(WritingLdif, RefusesNamesThatWouldMeanSomethingElse)
{
    for (char const* const name :
         {"", "c n", "cn:", "cn\nsn", "c\xC3\xA4", "dn", "ChangeType", "control"}) {
        Record record;
        record.attributes = {{"cn", "a", 0}, {name, "b", 0}};
        std::string text = "before";

        EXPECT_THAT(thrownBy([&] { LDAPLdif::append(text, record); }),
                    IsFault("Ldif.cpp", 152, 2, 0))
            << name;
        EXPECT_EQ(text, "before");
    }
    for (char const* const name : {"", "c n", "cn\nx", "="}) {
        Record record;
        record.type = Type::Modify;
        record.changes = {{Operation::Delete, name, {}, 0}};
        EXPECT_THAT(thrownBy([&] { written(record); }), IsFault("Ldif.cpp", 152, 2, 0)) << name;
    }
    for (char const* const oid : {"", "cn", "1.2 true", "1.2\n"}) {
        Record record;
        record.type = Type::Delete;
        record.controls = {{oid, false, {}, 0}};
        EXPECT_THAT(thrownBy([&] { written(record); }), IsFault("Ldif.cpp", 152, 2, 0)) << oid;
    }
    EXPECT_THAT(thrownBy([] {
                    std::string text;
                    LDAPLdif::appendLine(text, "a b", "c");
                }),
                IsFault("Ldif.cpp", 152, 2, 0, "the name 'a b' cannot be written as LDIF"));
}
