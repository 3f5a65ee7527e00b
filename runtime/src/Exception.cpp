// The product's exception and its chain of causes.
#include <solvart/Exception.h>

#include "Line.h"

#include <cassert>
#include <exception>

namespace Solvane {

namespace {

/// Whether `current` points to `caught` itself.
bool isObjectOf(std::exception_ptr const& current, Exception const& caught)
{
    if (current == nullptr) {
        return false;
    }
    try {
        std::rethrow_exception(current);
    } catch (Exception const& object) {
        return &object == &caught;
    } catch (...) {
        return false;
    }
}

/// Whether `sought` is `first` or one of its causes.
bool leadsTo(Exception const& first, Exception const& sought)
{
    Exception const* each = &first;
    while (each != &sought && each->hasCause()) {
        each = &each->cause();
    }
    return each == &sought;
}

void appendDescription(std::string& line, Exception const& exception)
{
    appendEscaped(line, exception.name());
    line += " code " + std::to_string(exception.code());
    if (!exception.fileName().empty()) {
        line += " at ";
        appendEscaped(line, exception.fileName());
        line += ':' + std::to_string(exception.lineNumber());
    }
    if (!exception.stringParameter().empty()) {
        line += ": ";
        appendEscaped(line, exception.stringParameter());
    }
}

} // namespace

Exception::Exception(std::string const& name, int code, char const* fileName,
                     unsigned int lineNumber)
    : m_name(name), m_code(code), m_fileName(fileName == nullptr ? "" : fileName),
      m_lineNumber(lineNumber), m_intParameter(0)
{
}

Exception::Exception(Exception const& other) = default;
Exception& Exception::operator=(Exception const& other)
{
    bool const wouldCauseItself = this != &other && leadsTo(other, *this);
    m_name = other.m_name;
    m_code = other.m_code;
    m_fileName = other.m_fileName;
    m_lineNumber = other.m_lineNumber;
    m_stringParameter = other.m_stringParameter;
    m_intParameter = other.m_intParameter;
    m_cause = wouldCauseItself ? nullptr : other.m_cause;
    return *this;
}
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

void Exception::cause(Exception const& caught)
{
    std::exception_ptr const current = std::current_exception();
    bool const isBehindCaught = leadsTo(caught, *this);
    if (!isBehindCaught && isObjectOf(current, caught)) {
        // The pointer shares ownership of the exception that is being handled.
        auto const owner = std::make_shared<std::exception_ptr>(current);
        m_cause = std::shared_ptr<Exception const>(owner, &caught);
        return;
    }
    auto const copy = std::make_shared<Exception>(caught);
    if (isBehindCaught && &caught != this) {
        copy->m_cause.reset(); // a chain that leads back to this exception would own itself
    }
    m_cause = copy;
}

Exception const& Exception::cause() const
{
    assert(m_cause != nullptr);
    return *m_cause;
}

bool Exception::hasCause() const { return m_cause != nullptr; }

std::string Exception::asString() const
{
    std::string line;
    appendDescription(line, *this);
    for (Exception const* each = this; each->hasCause();) {
        each = &each->cause();
        line += ", caused by ";
        appendDescription(line, *each);
    }
    return line;
}

} // namespace Solvane
