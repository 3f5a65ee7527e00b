// TLS settings from ldap.conf and the environment, in a process of their own.
#include "Process.h"
#include "ServerTls.h"
#include "TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using testing::AllOf;
using testing::HasSubstr;

namespace SolvaneTest {

namespace {

class TlsConfiguration : public testing::Test {
protected:
    /// The policy of a program with these variables.
    std::string policyWith(std::vector<std::string> const& variables) const
    {
        std::vector<std::string> command = {"env", "-u", "LDAPNOINIT",
                                            "HOME=" + m_folder.path().string(),
                                            "LDAPCONF=" + fileWith("ldap.conf", "")};
        command.insert(command.end(), variables.begin(), variables.end());
        command.emplace_back(SOLVANE_TLS_POLICY);
        return run(command).output;
    }
    std::string fileWith(std::string const& name, std::string const& text) const
    {
        std::string const path = m_folder.path() / name;
        std::ofstream(path) << text;
        return path;
    }

    TemporaryDirectory m_folder;
    Authority m_authority;
    TlsIdentity m_mine{m_authority.issue()};
    std::string m_revocations{m_authority.revocations({})};
};

} // namespace

TEST_F(TlsConfiguration, IsTakenFromTheEnvironment)
{
    EXPECT_EQ(
        policyWith({"LDAPTLS_CACERT=" + m_authority.file(), "LDAPTLS_CRLFILE=" + m_revocations,
                    "LDAPTLS_CIPHER_SUITE=SECURE192", "LDAPTLS_PROTOCOL_MIN=3.4",
                    "LDAPTLS_CERT=" + m_mine.certificateFile, "LDAPTLS_KEY=" + m_mine.keyFile}),
        "authorities " + m_authority.file() + "\nfolder \nrevocations " + m_revocations +
            "\nciphers SECURE192\nversion 4\ncertificate " + m_mine.certificateFile + "\nkey " +
            m_mine.keyFile + "\nverdict \n");
}

TEST_F(TlsConfiguration, IsTakenFromTheHostsFile)
{
    std::string const folder = std::filesystem::path(m_authority.file()).parent_path();
    std::string const file =
        fileWith("host.conf", "TLS_CACERT " + m_authority.file() + "\nTLS_CACERTDIR " + folder +
                                  "\nTLS_CRLFILE " + m_revocations +
                                  "\nTLS_CIPHER_SUITE NORMAL\nTLS_PROTOCOL_MIN 3.2\n");

    EXPECT_EQ(policyWith({"LDAPCONF=" + file}),
              "authorities " + m_authority.file() + "\nfolder " + folder + "\nrevocations " +
                  m_revocations + "\nciphers NORMAL\nversion 2\ncertificate \nkey \nverdict \n");
}

// They are a user's own: OpenLDAP ignores them in the host's file.
TEST_F(TlsConfiguration, TakesTheClientCertificateFromTheUsersFileOnly)
{
    std::string const lines =
        "TLS_CERT " + m_mine.certificateFile + "\nTLS_KEY " + m_mine.keyFile + '\n';

    EXPECT_THAT(policyWith({"LDAPCONF=" + fileWith("host.conf", lines)}),
                HasSubstr("\ncertificate \nkey \n"));
    fileWith(".ldaprc", lines);
    EXPECT_THAT(policyWith({}), AllOf(HasSubstr("\ncertificate " + m_mine.certificateFile + '\n'),
                                      HasSubstr("\nkey " + m_mine.keyFile + '\n')));
}

TEST_F(TlsConfiguration, OfAFileThatIsMissingIsNamed)
{
    EXPECT_THAT(policyWith({"LDAPTLS_CACERT=/nonexistent/ca.pem"}),
                HasSubstr("\nverdict the CA file '/nonexistent/ca.pem' cannot be read: "));
}

} // namespace SolvaneTest
