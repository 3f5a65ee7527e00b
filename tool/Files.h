// Reading the files that a user names.
#ifndef SOLVANE_TOOL_FILES_H
#define SOLVANE_TOOL_FILES_H

#include "Failure.h"

#include <cstdio>
#include <memory>
#include <string>

namespace Solvane::Tool {

/// An open file, closed at the end of its scope.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
    ~Descriptor();
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int get() const { return m_descriptor; }
    bool isOpen() const { return m_descriptor >= 0; }

private:
    int m_descriptor;
};

/// The failure of a file that was named on the command line.
/// @param what   its role, as "the template file"
/// @param error  errno
Failure unusableFile(std::string const& what, std::string const& path, int error);

/// A whole small file.
/// @throws Failure  "configuration"
std::string readFile(std::string const& what, std::string const& path);

/// The lines of a file, or of standard input for "-".
class LineReader {
public:
    /// @throws Failure  "configuration": the file cannot be opened
    explicit LineReader(std::string const& path);
    ~LineReader();
    LineReader(LineReader const&) = delete;
    LineReader& operator=(LineReader const&) = delete;

    /// The next line without its newline. False at the end.
    /// @throws Failure  "configuration": the file cannot be read
    bool next(std::string& line);

private:
    struct Closing {
        void operator()(std::FILE* file) const;
    };

    std::string m_path;
    std::unique_ptr<std::FILE, Closing> m_file;
    char* m_line = nullptr; ///< getline's
    std::size_t m_capacity = 0;
};

} // namespace Solvane::Tool

#endif
