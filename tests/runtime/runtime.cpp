// The smallest runtime: each of its three libraries is compiled from its section.
#include <solvart/runtime.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <ostream>

#include <arpa/inet.h>
#include <netdb.h>
#include <strings.h>
#include <sys/socket.h>

// libsolvart++: exceptions, bytes, locks, log and debug output.
#ifdef LIBSOLVART

unsigned int basepp_dbg_mask_ = 0;

namespace basepp {
namespace dbg {

void debug(char const* file, int line, char const* function, int /*flags*/, char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::fprintf(stderr, "%s:%d %s: ", file, line, function);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
}

} // namespace dbg
} // namespace basepp

namespace Solvane {

Buffer::Buffer() = default;

Buffer::Buffer(void const* bytes, unsigned int length, bool /*mayShare*/)
    : m_bytes(static_cast<char const*>(bytes), length)
{
}

void Buffer::append(unsigned char const* bytes, unsigned int length)
{
    m_bytes.append(reinterpret_cast<char const*>(bytes), length);
}

void Buffer::append(unsigned char byte) { m_bytes += static_cast<char>(byte); }

unsigned char* Buffer::data() { return reinterpret_cast<unsigned char*>(m_bytes.data()); }

unsigned char const* Buffer::data() const
{
    return reinterpret_cast<unsigned char const*>(m_bytes.data());
}

unsigned int Buffer::length() const { return static_cast<unsigned int>(m_bytes.size()); }

Exception::Exception(std::string const& name, int code, char const* fileName,
                     unsigned int lineNumber)
    : m_name(name), m_code(code), m_fileName(fileName == nullptr ? "" : fileName),
      m_lineNumber(lineNumber), m_intParameter(0)
{
}

Exception::Exception(Exception const& other) = default;
Exception::~Exception() = default;

std::string const& Exception::stringParameter() const { return m_stringParameter; }
void Exception::stringParameter(std::string const& text) { m_stringParameter = text; }
int Exception::intParameter() const { return m_intParameter; }
void Exception::intParameter(int value) { m_intParameter = value; }
std::string const& Exception::fileName() const { return m_fileName; }
void Exception::fileName(std::string const& name) { m_fileName = name; }
void Exception::fileName(char const* name) { m_fileName = name == nullptr ? "" : name; }
unsigned int Exception::lineNumber() const { return m_lineNumber; }
void Exception::lineNumber(unsigned int line) { m_lineNumber = line; }

// Only what a handler caught becomes a cause; that is all that the library does.
void Exception::cause(Exception const& caught)
{
    m_cause = std::shared_ptr<Exception const>(
        std::make_shared<std::exception_ptr>(std::current_exception()), &caught);
}

Exception const& Exception::cause() const { return *m_cause; }
bool Exception::hasCause() const { return m_cause != nullptr; }
std::string const& Exception::name() const { return m_name; }
int Exception::code() const { return m_code; }
std::string Exception::asString() const { return m_name + ": " + m_stringParameter; }

Logger& Logger::instance(bool /*reopen*/)
{
    static Logger logger;
    return logger;
}

void Logger::log(unsigned int /*category*/, int /*flags*/, char const* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
}

Mutex::Mutex() = default;

Synchronized::Synchronized(Mutex* mutex) : m_mutex(mutex)
{
    if (m_mutex != nullptr) {
        m_mutex->m_mutex.lock();
    }
}

Synchronized::~Synchronized()
{
    if (m_mutex != nullptr) {
        m_mutex->m_mutex.unlock();
    }
}

Semaphore::Semaphore(unsigned int count) : m_count(count) {}

bool Semaphore::trywait()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    bool const hasToken = m_count > 0;
    m_count -= hasToken ? 1 : 0;
    return hasToken;
}

void Semaphore::post()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    ++m_count;
}

} // namespace Solvane

#endif

// libsolvaparser: addresses, URIs and strings. Text is taken as UTF-8.
#ifdef LIBSOLVAPARSER

namespace Solvane {

namespace {

char const blanks[] = " \t\n\v\f\r";

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

} // namespace

EmailAddress::EmailAddress(std::string const& text)
    : m_local(text.substr(0, text.rfind('@'))),
      m_domain(m_local.size() == text.size() ? "" : text.substr(m_local.size() + 1))
{
}

std::string EmailAddress::local() const { return m_local; }
std::string EmailAddress::domain() const { return m_domain; }

Uri::Uri() = default;
Uri::Uri(std::string const& text) : m_text(text) {}
std::string Uri::asString() const { return m_text; }
bool Uri::operator==(Uri const& other) const { return m_text == other.m_text; }

void stringLeftTrim(std::string& text) { text.erase(0, text.find_first_not_of(blanks)); }
void stringRightTrim(std::string& text) { text.erase(text.find_last_not_of(blanks) + 1); }

void stringToLowerNoCopy(std::string& text)
{
    std::transform(text.begin(), text.end(), text.begin(), lowered);
}

std::string copyStringToLower(std::string const& text)
{
    std::string copy = text;
    stringToLowerNoCopy(copy);
    return copy;
}

int stringCompareNoCase(std::string const& left, std::string const& right, unsigned int length)
{
    return stringCompareNoCase(left.c_str(), right, length);
}

int stringCompareNoCase(char const* left, std::string const& right, unsigned int length)
{
    return length == 0 ? ::strcasecmp(left, right.c_str())
                       : ::strncasecmp(left, right.c_str(), length);
}

void stringToUtf8(std::string const& text, Buffer& out, SVLStaticCharSetFallbacks const*)
{
    out.append(reinterpret_cast<unsigned char const*>(text.data()),
               static_cast<unsigned int>(text.size()));
}

} // namespace Solvane

#endif

// liblwipc: hosts and their addresses.
#ifdef LIBLWIPC

namespace Solvane {

Host::Host(std::string const& name, bool mustResolve)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &hints, &found) == 0) {
        char text[NI_MAXHOST] = "";
        ::getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0,
                      NI_NUMERICHOST);
        ::freeaddrinfo(found);
        m_address.reset(new IPAddress(text));
    } else if (mustResolve) {
        throw Exception("Host", 1, nullptr, 0);
    }
}

bool Host::isNull() const { return m_address == nullptr; }
IPAddress const* Host::address() const { return m_address.get(); }

IPAddress::IPAddress(std::string const& text) : m_text(text) {}

bool IPAddress::isValidIPAddress(std::string const& literal)
{
    unsigned char bytes[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, literal.c_str(), bytes) == 1 ||
           ::inet_pton(AF_INET6, literal.c_str(), bytes) == 1;
}

std::ostream& operator<<(std::ostream& out, IPAddress const& address)
{
    return out << address.m_text;
}

} // namespace Solvane

#endif
