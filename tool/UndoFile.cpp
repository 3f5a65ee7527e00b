// Appends to a journal, and turns it round.
#include "UndoFile.h"

#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

constexpr std::string_view journalHeader =
    "# solvane-ldap: the journal of a run that has not ended; only solvane-ldap can apply it\n\n";
constexpr std::string_view header = "# solvane-ldap: undoes a run of apply\n\n";

constexpr std::string_view blockEnd = "\n\n";
constexpr std::size_t chunk = std::size_t{64} * 1024;

/// The content of a file, in memory as far as it is read.
class Mapping {
public:
    /// @throws Failure  "configuration"
    Mapping(int descriptor, std::string const& path)
    {
        struct stat status = {};
        if (fstat(descriptor, &status) != 0) {
            throw unusableFile("the undo file", path, errno);
        }
        m_size = static_cast<std::size_t>(status.st_size);
        if (m_size == 0) {
            return;
        }
        m_bytes = mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, descriptor, 0);
        if (m_bytes == MAP_FAILED) {
            throw unusableFile("the undo file", path, errno);
        }
    }
    ~Mapping()
    {
        if (m_size != 0) {
            munmap(m_bytes, m_size);
        }
    }
    Mapping(Mapping const&) = delete;
    Mapping& operator=(Mapping const&) = delete;

    std::string_view text() const { return {static_cast<char const*>(m_bytes), m_size}; }

private:
    void* m_bytes = nullptr;
    std::size_t m_size = 0;
};

/// Writes the blocks of a journal, the last one first.
/// @param outPath  for messages
void writeReversed(int journal, int out, std::string const& path, std::string const& outPath)
{
    Mapping const mapping(journal, path);
    std::string_view rest = mapping.text();
    auto const end = rest.rfind(blockEnd); // what follows is incomplete
    rest = end == std::string_view::npos ? "" : rest.substr(0, end + blockEnd.size());
    rest.remove_prefix(std::min(rest.size(), journalHeader.size()));

    std::string text(header);
    while (!rest.empty()) {
        auto const last = rest.rfind(blockEnd, rest.size() - blockEnd.size() - 1);
        std::size_t const begin = last == std::string_view::npos ? 0 : last + blockEnd.size();
        text += rest.substr(begin);
        rest = rest.substr(0, begin);
        if (text.size() >= chunk) {
            writeWhole(out, outPath, text);
            text.clear();
        }
    }
    writeWhole(out, outPath, text);
}

bool isJournal(int descriptor)
{
    std::array<char, journalHeader.size()> begin{};
    ssize_t const count = pread(descriptor, begin.data(), begin.size(), 0);
    return count == static_cast<ssize_t>(begin.size()) &&
           std::string_view(begin.data(), begin.size()) == journalHeader;
}

} // namespace

bool beginsJournal(std::string_view line)
{
    std::string_view const first = journalHeader.substr(0, journalHeader.find('\n'));
    return line.substr(0, first.size()) == first;
}

UndoFile::UndoFile(std::string path)
    : m_path(std::move(path)),
      m_file(open(m_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0600))
{
    if (!m_file.isOpen() && errno == EEXIST) {
        throw Failure(Outcome::usage, fmt::format("'{}' exists already", oneLine(m_path)),
                      "name another file for --pre-read");
    }
    if (!m_file.isOpen()) {
        throw unwritableFile(m_path, errno);
    }
    try {
        append(std::string(journalHeader));
    } catch (Failure const&) {
        unlink(m_path.c_str());
        throw;
    }
    m_isEmpty = true;
}

UndoFile::~UndoFile()
{
    if (m_isEmpty) {
        unlink(m_path.c_str());
    }
}

void UndoFile::add(std::vector<LDAPLdifRecord> const& records)
{
    std::string blocks;
    for (auto record = records.rbegin(); record != records.rend(); ++record) {
        LDAPLdif::append(blocks, *record);
    }
    if (!blocks.empty()) {
        append(blocks);
    }
}

void UndoFile::remark(std::string const& text) { append("# " + oneLine(text) + "\n\n"); }

void UndoFile::append(std::string const& blocks)
{
    try {
        writeWhole(m_file.get(), m_path, blocks);
    } catch (Failure const&) {
        if (ftruncate(m_file.get(), m_size) == 0) { // the records before it stay usable
            lseek(m_file.get(), m_size, SEEK_SET);
        }
        throw;
    }
    m_size += static_cast<off_t>(blocks.size());
    m_isEmpty = false;
}

void UndoFile::finish()
{
    if (m_isEmpty) {
        return;
    }
    std::string beside = m_path + ".XXXXXX";
    Descriptor const reversed(mkstemp(beside.data())); // mode 600
    if (!reversed.isOpen()) {
        throw unwritableFile(m_path, errno);
    }
    try {
        writeReversed(m_file.get(), reversed.get(), m_path, m_path);
        if (fsync(reversed.get()) != 0 || rename(beside.c_str(), m_path.c_str()) != 0) {
            throw unwritableFile(m_path, errno);
        }
    } catch (Failure const&) {
        unlink(beside.c_str());
        throw;
    }
}

std::unique_ptr<Descriptor> journalReversed(std::string const& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) { // a pipe is read once
        return nullptr;
    }
    Descriptor const journal(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!journal.isOpen() || !isJournal(journal.get())) {
        return nullptr;
    }
    char const* const folder = std::getenv("TMPDIR");
    std::string name = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") +
                       "/solvane-undo.XXXXXX";
    auto reversed = std::make_unique<Descriptor>(mkstemp(name.data()));
    if (!reversed->isOpen()) {
        throw unwritableFile(name, errno);
    }
    unlink(name.c_str());
    writeReversed(journal.get(), reversed->get(), path, name);
    return reversed;
}

} // namespace Solvane::Tool
