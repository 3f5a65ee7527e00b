// Standard error sent elsewhere for the time of a test.
#ifndef SOLVART_CONTRACT_CAPTURED_STANDARD_ERROR_H
#define SOLVART_CONTRACT_CAPTURED_STANDARD_ERROR_H

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

/// Points standard error to another descriptor and back again.
class RedirectedStandardError {
public:
    explicit RedirectedStandardError(int target) : m_saved(::dup(STDERR_FILENO))
    {
        ::dup2(target, STDERR_FILENO);
    }
    ~RedirectedStandardError()
    {
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
    }
    RedirectedStandardError(RedirectedStandardError const&) = delete;
    RedirectedStandardError& operator=(RedirectedStandardError const&) = delete;

private:
    int m_saved;
};

/// Collects what is written, of any length.
class StandardErrorLines {
public:
    StandardErrorLines() : m_file(std::tmpfile()), m_redirected(::fileno(m_file)) {}
    ~StandardErrorLines() { std::fclose(m_file); }
    StandardErrorLines(StandardErrorLines const&) = delete;
    StandardErrorLines& operator=(StandardErrorLines const&) = delete;

    /// What was written so far, without the newlines.
    std::vector<std::string> lines() const
    {
        std::string text;
        std::array<char, 4096> block;
        ssize_t got = 0;
        while ((got = ::pread(::fileno(m_file), block.data(), block.size(),
                              static_cast<off_t>(text.size()))) > 0) {
            text.append(block.data(), static_cast<std::size_t>(got));
        }
        EXPECT_TRUE(text.empty() || text.back() == '\n') << "the last line does not end";

        std::vector<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }

private:
    std::FILE* m_file;
    RedirectedStandardError m_redirected;
};

/// Refuses every write.
class FullStandardError {
public:
    FullStandardError()
        : m_device(::open("/dev/full", O_WRONLY | O_CLOEXEC)), m_redirected(m_device)
    {
    }
    ~FullStandardError() { ::close(m_device); }
    FullStandardError(FullStandardError const&) = delete;
    FullStandardError& operator=(FullStandardError const&) = delete;

private:
    int m_device;
    RedirectedStandardError m_redirected;
};

/// Keeps system calls apart: on this kind of socket each write arrives as a message of its own.
class StandardErrorWrites {
public:
    StandardErrorWrites() : m_ends(pair()), m_redirected(m_ends[0]) {}
    ~StandardErrorWrites()
    {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    StandardErrorWrites(StandardErrorWrites const&) = delete;
    StandardErrorWrites& operator=(StandardErrorWrites const&) = delete;

    /// The lengths of the writes since the last call.
    std::vector<ssize_t> lengths()
    {
        std::vector<ssize_t> lengths;
        std::array<char, 65536> message;
        ssize_t got = 0;
        while ((got = ::recv(m_ends[1], message.data(), message.size(), MSG_DONTWAIT)) > 0) {
            lengths.push_back(got);
        }
        return lengths;
    }

private:
    static std::array<int, 2> pair()
    {
        std::array<int, 2> ends = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
        return ends;
    }

    std::array<int, 2> m_ends;
    RedirectedStandardError m_redirected;
};

#endif
