// Files by name.
#include "Files.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace Solvane::Tool {

Descriptor::~Descriptor()
{
    if (isOpen()) {
        close(m_descriptor);
    }
}

Failure unusableFile(std::string const& what, std::string const& path, int error)
{
    return Failure(Outcome::configuration,
                   fmt::format("{} '{}' cannot be read: {}", what, path, strerror(error)),
                   "name a file that you can read");
}

std::string readFile(std::string const& what, std::string const& path)
{
    Descriptor const file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.isOpen()) {
        throw unusableFile(what, path, errno);
    }
    std::string text;
    std::array<char, 4096> part{};
    for (;;) {
        ssize_t const count = read(file.get(), part.data(), part.size());
        if (count == 0) {
            return text;
        }
        if (count > 0) {
            text.append(part.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            throw unusableFile(what, path, errno);
        }
    }
}

void LineReader::Closing::operator()(std::FILE* file) const
{
    if (file != stdin) {
        std::fclose(file);
    }
}

LineReader::LineReader(std::string const& path)
    : m_path(path), m_file(path == "-" ? stdin : std::fopen(path.c_str(), "re"))
{
    if (!m_file) {
        throw unusableFile("the file of keys", path, errno);
    }
}

LineReader::~LineReader() { std::free(m_line); } // NOLINT(cppcoreguidelines-no-malloc)

bool LineReader::next(std::string& line)
{
    errno = 0;
    ssize_t const length = ::getline(&m_line, &m_capacity, m_file.get());
    if (length < 0) {
        if (std::feof(m_file.get()) == 0) {
            throw unusableFile("the file of keys", m_path, errno);
        }
        return false;
    }
    line.assign(m_line, static_cast<std::size_t>(length));
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    return true;
}

} // namespace Solvane::Tool
