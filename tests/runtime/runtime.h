// What the libraries may use of the runtime, and nothing besides.
#ifndef SOLVART_RUNTIME_H
#define SOLVART_RUNTIME_H

#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>

extern unsigned int basepp_dbg_mask_;

namespace basepp {
namespace dbg {

void debug(char const* file, int line, char const* function, int flags, char const* format, ...);

} // namespace dbg
} // namespace basepp

namespace Solvane {

class Exception {
public:
    Exception(std::string const& name, int code, char const* fileName, unsigned int lineNumber);
    Exception(Exception const& other);
    virtual ~Exception();

    virtual std::string const& stringParameter() const;
    virtual void stringParameter(std::string const& text);
    virtual int intParameter() const;
    virtual void intParameter(int value);
    virtual std::string const& fileName() const;
    virtual void fileName(std::string const& name);
    virtual void fileName(char const* name);
    virtual unsigned int lineNumber() const;
    virtual void lineNumber(unsigned int line);
    virtual void cause(Exception const& caught);
    virtual Exception const& cause() const;
    virtual bool hasCause() const;

    std::string const& name() const;
    int code() const;
    std::string asString() const;

private:
    std::string m_name;
    int m_code;
    std::string m_fileName;
    unsigned int m_lineNumber;
    int m_intParameter;
    std::string m_stringParameter;
    std::shared_ptr<Exception const> m_cause;
};

class Buffer {
public:
    explicit Buffer();
    explicit Buffer(void const* bytes, unsigned int length, bool mayShare);
    Buffer(Buffer const& other) = default;
    Buffer(Buffer&& other) noexcept = default;
    Buffer& operator=(Buffer const& other) = default;
    Buffer& operator=(Buffer&& other) noexcept = default;

    void append(unsigned char const* bytes, unsigned int length);
    void append(unsigned char byte);
    unsigned char* data();
    unsigned char const* data() const;
    unsigned int length() const;

private:
    std::string m_bytes; // its data() is never null
};

class Logger {
public:
    Logger(Logger const&) = delete;
    Logger& operator=(Logger const&) = delete;

    static Logger& instance(bool reopen);

    void log(unsigned int category, int flags, char const* format, ...);

private:
    Logger() = default;
};

class Mutex {
public:
    Mutex();

private:
    friend class Synchronized;

    std::mutex m_mutex;
};

class Synchronized {
public:
    explicit Synchronized(Mutex* mutex);
    Synchronized(Synchronized const&) = delete;
    Synchronized& operator=(Synchronized const&) = delete;
    ~Synchronized();

private:
    Mutex* m_mutex;
};

class Semaphore {
public:
    explicit Semaphore(unsigned int count);

    bool trywait();
    void post();

private:
    std::mutex m_mutex;
    unsigned int m_count;
};

class EmailAddress {
public:
    explicit EmailAddress(std::string const& text);

    std::string local() const;
    std::string domain() const;

private:
    std::string m_local;
    std::string m_domain;
};

class SVLStaticCharSetFallbacks;

void stringLeftTrim(std::string& text);
void stringRightTrim(std::string& text);
void stringToLowerNoCopy(std::string& text);
std::string copyStringToLower(std::string const& text);
int stringCompareNoCase(std::string const& left, std::string const& right, unsigned int length);
int stringCompareNoCase(char const* left, std::string const& right, unsigned int length);
void stringToUtf8(std::string const& text, Buffer& out, SVLStaticCharSetFallbacks const* fallbacks);

class Uri {
public:
    Uri();
    explicit Uri(std::string const& text);

    std::string asString() const;
    bool operator==(Uri const& other) const;

private:
    std::string m_text;
};

class IPAddress {
public:
    IPAddress(IPAddress const&) = delete;
    IPAddress& operator=(IPAddress const&) = delete;

    static bool isValidIPAddress(std::string const& literal);

private:
    friend class Host;
    friend std::ostream& operator<<(std::ostream& out, IPAddress const& address);

    explicit IPAddress(std::string const& text);

    std::string m_text;
};

std::ostream& operator<<(std::ostream& out, IPAddress const& address);

class Host {
public:
    Host(std::string const& name, bool mustResolve);

    bool isNull() const;
    IPAddress const* address() const;

private:
    std::shared_ptr<IPAddress const> m_address;
};

} // namespace Solvane

#endif
