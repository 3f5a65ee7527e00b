/// @file
/// The base class of the exceptions of the product's libraries.
#ifndef SOLVART_EXCEPTION_H
#define SOLVART_EXCEPTION_H

#include <solvart/Export.h>

#include <memory>
#include <string>

namespace Solvane {

/// An exception: a name, a code, the place that reported it and, if there is one, its cause.
///
/// A copy shares the cause, which is thread-safe for reading and must not be changed.
class SOLVART_EXPORT Exception {
public:
    /// An exception without details and without a cause.
    /// @param name        the kind of failure
    /// @param code        its meaning is defined by the code that throws
    /// @param fileName    the source file that reports it; null for none
    /// @param lineNumber  the line that reports it; 0 for none
    Exception(std::string const& name, int code, char const* fileName, unsigned int lineNumber);
    /// Shares the cause and copies everything else.
    Exception(Exception const& other);
    /// Shares the cause of `other`, unless that would lead back to this exception; copies the rest.
    Exception& operator=(Exception const& other);
    virtual ~Exception();

    /// Detail text; empty if it is not set.
    virtual std::string const& stringParameter() const;
    /// Sets the detail text.
    virtual void stringParameter(std::string const& text);
    /// Detail number; 0 if it is not set.
    virtual int intParameter() const;
    /// Sets the detail number.
    virtual void intParameter(int value);
    /// The source file that reported it; empty if there is none.
    virtual std::string const& fileName() const;
    /// Sets the source file that reports it.
    virtual void fileName(std::string const& name);
    /// Sets the source file that reports it; null for none.
    virtual void fileName(char const* name);
    /// The line that reported it; 0 if there is none.
    virtual unsigned int lineNumber() const;
    /// Sets the line that reports it.
    virtual void lineNumber(unsigned int line);

    /// Attaches the exception that led to this one.
    ///
    /// If `caught` is the exception that the innermost handler caught, that object is kept, with its
    /// dynamic type; any other object is copied as `Exception`. An exception cannot be its own cause:
    /// it is copied, without the causes that lead back to it.
    virtual void cause(Exception const& caught);
    /// The cause. Aborts the process if there is none.
    virtual Exception const& cause() const;
    /// Whether there is a cause.
    virtual bool hasCause() const;

    /// The kind of failure.
    std::string const& name() const { return m_name; }
    /// The code; its meaning is defined by the code that throws.
    int code() const { return m_code; }

    /// One line: name, code, file and line, detail text, then the causes, outermost first. Control
    /// characters are escaped (a newline as "\n"); missing parts are left out.
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

} // namespace Solvane

#endif
