// Reads passwords byte by byte into memory that is wiped; a terminal's echo is off meanwhile.
#include "Secret.h"

#include "Files.h"
#include "Outcome.h"
#include "Text.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace Solvane::Tool {

namespace {

/// Turns echo off during its lifetime. A signal that would end or stop the process interrupts
/// `waitFor` and takes effect after echo is on again. One object at a time; not thread-safe.
class EchoOff {
public:
    explicit EchoOff(int terminal);
    ~EchoOff();
    EchoOff(EchoOff const&) = delete;
    EchoOff& operator=(EchoOff const&) = delete;

    /// Blocks until the terminal is ready for `events` of poll(2), or until a signal interrupts;
    /// after a signal it only polls.
    /// @return whether the terminal is ready
    bool waitFor(short events) const;
    static bool wasInterrupted();

private:
    static constexpr std::array<int, 5> signals = {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP};

    int m_terminal;
    termios m_saved{};
    std::array<struct sigaction, signals.size()> m_actions{};
    sigset_t m_mask{};
};

/// How an owner's password is spoken of.
struct Wording {
    char const* prompt;
    char const* password;
    char const* descriptorOption;
    char const* otherSources;
};

// clang-format off
constexpr Wording wordings[] = { // in the order of Owner
    {"Password",                "the password (-W)",   "--password-fd",      "-y FILE or --password-fd N"},
    {"Password",                "the user's password", "--user-password-fd", "--user-password-file FILE or --user-password-fd N"},
    {"Old password",            "the old password",    "--old-password-fd",  "-t FILE or --old-password-fd N"},
    {"New password",            "the new password",    "--new-password-fd",  "-T FILE or --new-password-fd N"},
    {"Repeat the new password", "the new password",    "--new-password-fd",  "-T FILE or --new-password-fd N"},
};
// clang-format on

Wording const& wordingFor(Secret::Owner owner) { return wordings[static_cast<std::size_t>(owner)]; }

volatile std::sig_atomic_t g_caughtSignal = 0;

void remember(int signal) { g_caughtSignal = signal; }

EchoOff::EchoOff(int terminal) : m_terminal(terminal)
{
    g_caughtSignal = 0;
    struct sigaction remembering = {};
    remembering.sa_handler = remember;
    sigset_t blocked;
    sigemptyset(&blocked);
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaddset(&blocked, signals[i]);
        sigaction(signals[i], &remembering, &m_actions[i]);
    }
    // Blocked except within ppoll: a signal just before a read would not interrupt that read.
    pthread_sigmask(SIG_BLOCK, &blocked, &m_mask);
    tcgetattr(m_terminal, &m_saved);
    termios silent = m_saved;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(m_terminal, TCSAFLUSH, &silent);
}

EchoOff::~EchoOff()
{
    tcsetattr(m_terminal, TCSAFLUSH, &m_saved);
    for (std::size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], &m_actions[i], nullptr);
    }
    if (wasInterrupted()) {
        raise(g_caughtSignal);
    }
    pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
}

bool EchoOff::waitFor(short events) const
{
    pollfd waited = {m_terminal, events, 0};
    int ready = 0;
    do {
        timespec const atOnce = {};
        ready = wasInterrupted() ? ppoll(&waited, 1, &atOnce, nullptr)
                                 : ppoll(&waited, 1, nullptr, &m_mask);
    } while (ready < 0 && errno == EINTR && !wasInterrupted());
    return ready > 0;
}

bool EchoOff::wasInterrupted() { return g_caughtSignal != 0; }

void writeTo(int terminal, std::string const& text)
{
    // A prompt that cannot be shown is not an error.
    (void)!write(terminal, text.data(), text.size());
}

} // namespace

Secret::Secret(Owner owner) : m_owner(owner) { m_text.reserve(longest); }

Secret::~Secret() { wipe(m_text); }

void Secret::readFile(std::string const& path)
{
    std::string const source = "the password file";
    Descriptor const file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status = {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0) {
        throw unusableFile(source, path, errno);
    }
    requirePrivate(fmt::format("{} '{}'", source, path), status, Privacy::owner);
    readToEnd(file.get(), fmt::format("{} '{}'", source, path));
}

void Secret::readDescriptor(int descriptor)
{
    readToEnd(descriptor,
              fmt::format("descriptor {} ({})", descriptor, wordingFor(m_owner).descriptorOption));
}

void Secret::ask(std::string const& name)
{
    Descriptor const terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
    if (!terminal.isOpen()) {
        throw Failure(Outcome::configuration,
                      fmt::format("no terminal to ask for {}", wordingFor(m_owner).password),
                      fmt::format("use {}", wordingFor(m_owner).otherSources));
    }
    std::string const prompt =
        fmt::format("{} for {}: ", wordingFor(m_owner).prompt, oneLine(name));
    while (!askOnce(terminal.get(), prompt)) {
        wipe(m_text);
    }
    finish("the password");
}

/// Returns false if a signal interrupted it without ending the process.
bool Secret::askOnce(int terminal, std::string const& prompt)
{
    EchoOff const silence(terminal);
    if (silence.waitFor(POLLOUT)) {
        writeTo(terminal, prompt);
    }
    char byte = 0;
    while (silence.waitFor(POLLIN) && !EchoOff::wasInterrupted() &&
           readByte(terminal, "the password", byte) && byte != '\n') {
        append(byte, "the password");
    }
    if (silence.waitFor(POLLOUT)) {
        writeTo(terminal, "\n");
    }
    return !EchoOff::wasInterrupted();
}

void Secret::assign(std::string_view bytes, std::string const& source)
{
    wipe(m_text);
    for (char const byte : bytes) {
        append(byte, source);
    }
    finish(source);
}

void Secret::readToEnd(int descriptor, std::string const& source)
{
    char byte = 0;
    while (readByte(descriptor, source, byte)) {
        append(byte, source);
    }
    if (!m_text.empty() && m_text.back() == '\n') {
        m_text.pop_back();
    }
    finish(source);
}

/// Returns false at the end of the input.
bool Secret::readByte(int descriptor, std::string const& source, char& byte)
{
    for (;;) {
        ssize_t const count = read(descriptor, &byte, 1);
        if (count >= 0) {
            return count == 1;
        }
        if (errno != EINTR) {
            throw Failure(Outcome::configuration,
                          fmt::format("cannot read {}: {}", source, strerror(errno)),
                          "use another source for the password");
        }
    }
}

void Secret::append(char byte, std::string const& source)
{
    if (byte == '\0') {
        throw Failure(Outcome::configuration, fmt::format("{} contains a NUL byte", source),
                      "such a password cannot be sent, correct it");
    }
    if (m_text.size() == longest) {
        throw Failure(Outcome::configuration,
                      fmt::format("{} is longer than {} bytes", source, longest),
                      "it must contain only the password");
    }
    m_text.push_back(byte);
}

void Secret::finish(std::string const& source)
{
    if (m_text.empty() && m_owner != Owner::bindDn) {
        throw Failure(
            Outcome::badInput, fmt::format("{} is empty", source),
            fmt::format("give {}; an empty one is never sent", wordingFor(m_owner).password));
    }
    if (m_text.empty()) {
        throw Failure(
            Outcome::configuration, fmt::format("{} is empty", source),
            "many servers treat an empty password as an anonymous bind: give the password, or "
            "omit -D");
    }
}

} // namespace Solvane::Tool
