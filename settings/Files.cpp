// Reads and writes files.
#include "Files.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

using Supply = LDAPLookup::Supply;

constexpr std::size_t bufferSize = std::size_t{64} * 1024; // initial; grows for longer lines

int openForReading(std::string const& path)
{
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
}

/// The bytes of a byte order mark at the beginning; 0 without one.
std::size_t lengthOfMark(std::string_view text)
{
    return text.substr(0, byteOrderMark.size()) == byteOrderMark ? byteOrderMark.size() : 0;
}

/// Whether this process is a member.
bool hasGroup(gid_t group)
{
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    int const count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    return group == getegid() || std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool mayBeReadByItsGroup(struct stat const& status, Privacy privacy)
{
    if (privacy == Privacy::group ? geteuid() == 0 || hasGroup(status.st_gid)
                                  : status.st_uid != geteuid() && hasGroup(status.st_gid)) {
        return true;
    }
    return groupNamed(serviceGroup) == status.st_gid;
}

/// A group's name, or its number.
std::string nameOf(gid_t group)
{
    ::group found = {};
    ::group* result = nullptr;
    std::vector<char> names(1024);
    while (getgrgid_r(group, &found, names.data(), names.size(), &result) == ERANGE) {
        names.resize(2 * names.size());
    }
    return result == nullptr ? std::to_string(group) : result->gr_name;
}

/// Gives a new file of mode 600 the group of the one that it replaces, and the mode unless that one
/// is open to others: the new one may contain a password. Returns what is not kept, in words.
std::string takeAccess(int descriptor, std::string const& replaced)
{
    struct stat status = {};
    struct stat own = {};
    constexpr mode_t shared = S_IWGRP | S_IRWXO;
    if (stat(replaced.c_str(), &status) != 0 || fstat(descriptor, &own) != 0) {
        return {};
    }
    // The group first: until then, the mode would admit another one.
    if (status.st_gid != own.st_gid &&
        fchown(descriptor, static_cast<uid_t>(-1), status.st_gid) != 0) {
        return fmt::format("the group '{}' cannot be kept: {}", nameOf(status.st_gid),
                           strerror(errno));
    }
    if ((status.st_mode & shared) != 0) {
        return fmt::format("the mode {:03o} is not kept", status.st_mode & 0777U);
    }
    if (fchmod(descriptor, status.st_mode & 0777U) != 0) {
        return fmt::format("the mode {:03o} cannot be kept: {}", status.st_mode & 0777U,
                           strerror(errno));
    }
    return {};
}

} // namespace

std::optional<gid_t> groupNamed(std::string const& name)
{
    ::group found = {};
    ::group* result = nullptr;
    std::vector<char> names(1024);
    while (getgrnam_r(name.c_str(), &found, names.data(), names.size(), &result) == ERANGE) {
        names.resize(2 * names.size()); // it has many members
    }
    return result == nullptr ? std::nullopt : std::optional(found.gr_gid);
}

Descriptor::~Descriptor()
{
    if (isOpen()) {
        close(m_descriptor);
    }
}

Failure unusableFile(std::string const& what, std::string const& path, int error)
{
    return Failure(Outcome::configuration,
                   fmt::format("cannot read {} '{}': {}", what, path, strerror(error)),
                   "check its name and permissions");
}

std::string readFile(std::string const& what, std::string const& path)
{
    Descriptor const file(openForReading(path));
    if (!file.isOpen()) {
        throw unusableFile(what, path, errno);
    }
    std::string text;
    std::array<char, 4096> part{};
    for (;;) {
        ssize_t const count = read(file.get(), part.data(), part.size());
        if (count == 0) {
            return text.substr(lengthOfMark(text));
        }
        if (count > 0) {
            text.append(part.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            throw unusableFile(what, path, errno);
        }
    }
}

void requirePrivate(std::string const& what, struct stat const& status, Privacy privacy)
{
    unsigned int const mode = status.st_mode & 0777U;
    bool const isWritable = (mode & (S_IWGRP | S_IWOTH)) != 0;
    bool const isReadable =
        (mode & S_IROTH) != 0 || ((mode & S_IRGRP) != 0 && !mayBeReadByItsGroup(status, privacy));
    if (isReadable || isWritable) {
        throw Failure(
            Outcome::configuration,
            fmt::format("{} is {} by other users (mode {:03o})", what,
                        isReadable ? "readable" : "writable", mode),
            privacy == Privacy::owner
                ? "set mode 600, and change the password if others had access"
                : "set mode 640 with the group of the service, and change the password if others "
                  "had access");
    }
}

bool hasInput(int descriptor, int milliseconds)
{
    pollfd waited = {descriptor, POLLIN, 0};
    return poll(&waited, 1, milliseconds) > 0;
}

bool waitForInput(int descriptor)
{
    hasInput(descriptor, -1);
    return true;
}

std::string withoutLastNewline(std::string text)
{
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

LineReader::LineReader(std::string const& what, std::string const& path, char separator)
    : m_what(what), m_path(path), m_separator(separator),
      m_descriptor(path == "-" ? STDIN_FILENO : openForReading(path)), m_buffer(bufferSize)
{
    if (m_descriptor < 0) {
        throw unusableFile(m_what, m_path, errno);
    }
}

LineReader::~LineReader()
{
    if (m_descriptor != STDIN_FILENO) {
        close(m_descriptor);
    }
}

Supply LineReader::next(std::string& line, bool mayWait)
{
    for (;;) {
        if (takeLine(line)) {
            return Supply::key;
        }
        if (m_isAtEnd) {
            return Supply::end;
        }
        if (!mayRead(mayWait)) {
            return Supply::nothing;
        }
        read();
    }
}

/// Takes the next whole line out of the buffer; at the end of the file also one without separator.
bool LineReader::takeLine(std::string& line)
{
    char const* const begin = m_buffer.data() + m_begin;
    void const* const found =
        std::memchr(m_buffer.data() + m_scanned, m_separator, m_end - m_scanned);
    if (found == nullptr) {
        m_scanned = m_end;
        if (!m_isAtEnd || m_begin == m_end) {
            return false;
        }
    }
    char const* const end =
        found != nullptr ? static_cast<char const*>(found) : m_buffer.data() + m_end;
    line.assign(begin, end);
    m_begin += line.size() + (found != nullptr ? 1 : 0);
    m_scanned = m_begin;
    if (std::exchange(m_isFirst, false)) {
        line.erase(0, lengthOfMark(line));
    }
    return true;
}

/// Whether a read would not block, or is allowed to.
bool LineReader::mayRead(bool mayWait) const { return mayWait || hasInput(m_descriptor, 0); }

void LineReader::read()
{
    std::copy(m_buffer.begin() + static_cast<std::ptrdiff_t>(m_begin),
              m_buffer.begin() + static_cast<std::ptrdiff_t>(m_end), m_buffer.begin());
    m_end -= m_begin;
    m_scanned -= m_begin;
    m_begin = 0;
    if (m_end == m_buffer.size()) {
        if (m_buffer.size() > longestLine) {
            throw Failure(Outcome::configuration,
                          fmt::format("{} '{}' has a line of more than {} bytes", m_what, m_path,
                                      longestLine),
                          "correct the file");
        }
        m_buffer.resize(2 * m_buffer.size());
    }
    ssize_t const count = ::read(m_descriptor, m_buffer.data() + m_end, m_buffer.size() - m_end);
    if (count > 0) {
        m_end += static_cast<std::size_t>(count);
    } else if (count == 0) {
        m_isAtEnd = true;
    } else if (errno == EAGAIN) { // another process made it non-blocking
        waitForInput(m_descriptor);
    } else if (errno != EINTR) {
        throw unusableFile(m_what, m_path, errno);
    }
}

bool LineReader::isRegular() const
{
    struct stat status = {};
    return fstat(m_descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

std::optional<unsigned long> LineReader::count() const
{
    off_t position = lseek(m_descriptor, 0, SEEK_CUR);
    if (position < 0 || !isRegular()) {
        return std::nullopt;
    }
    std::vector<char> part(bufferSize);
    unsigned long lines = 0;
    char last = m_separator;
    for (;;) {
        ssize_t const count = pread(m_descriptor, part.data(), part.size(), position);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return lines + (last == m_separator ? 0 : 1);
        }
        lines +=
            static_cast<unsigned long>(std::count(part.begin(), part.begin() + count, m_separator));
        last = part[static_cast<std::size_t>(count) - 1];
        position += count;
    }
}

Failure unwritableFile(std::string const& path, int error)
{
    return {Outcome::outputFailed, fmt::format("cannot write '{}': {}", path, strerror(error)),
            "check its folder"};
}

void writeWhole(int descriptor, std::string const& path, std::string_view text)
{
    while (!text.empty()) {
        ssize_t const count = write(descriptor, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            throw unwritableFile(path, errno);
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

std::string writeFile(std::string const& path, std::string const& text, bool replaces)
{
    struct stat status = {};
    if (replaces && stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        throw Failure(Outcome::usage, fmt::format("'{}' is not a regular file", path),
                      "name a file, which may exist");
    }
    std::string beside = path + ".XXXXXX";
    Descriptor const file(mkstemp(beside.data())); // mode 600
    auto const fail = [&](int error) {
        unlink(beside.c_str());
        if (error == EEXIST) {
            throw Failure(Outcome::usage,
                          fmt::format("cannot write '{}': {}", path, strerror(error)),
                          "use --force to replace it");
        }
        throw unwritableFile(path, error);
    };
    if (!file.isOpen()) {
        fail(errno);
    }
    std::string unkept;
    try {
        writeWhole(file.get(), path, text);
        if (replaces) {
            unkept = takeAccess(file.get(), path);
        }
    } catch (Failure const&) {
        unlink(beside.c_str());
        throw;
    }
    int const rc =
        replaces ? rename(beside.c_str(), path.c_str()) : link(beside.c_str(), path.c_str());
    if (rc != 0) {
        fail(errno);
    }
    if (!replaces) {
        unlink(beside.c_str());
    }
    return unkept;
}

} // namespace Solvane::Tool
