// libsolvart++ of the smallest runtime: exceptions, bytes, locks, log and debug output.
#include <solvart/Buffer.h>
#include <solvart/Debug.h>
#include <solvart/Exception.h>
#include <solvart/Logger.h>
#include <solvart/Mutex.h>
#include <solvart/Semaphore.h>

#include <cstdarg>
#include <cstdio>
#include <exception>

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
