/// @file
/// The base of every failure that the product's libraries report by throwing.
#ifndef SOLVART_EXCEPTION_H
#define SOLVART_EXCEPTION_H

#include <solvart/Export.h>

#include <memory>
#include <string>

namespace Solvane {

/// A failure: a name, a code, the place that reported it and, where there is one, its cause.
///
/// Thrown by value and caught by reference. A copy shares the cause, which may be read from any
/// thread and is not to be changed any more.
class SOLVART_EXPORT Exception {
public:
    /// A failure without detail and without cause.
    /// @param name        what kind of failure this is
    /// @param code        meaning fixed by whoever throws
    /// @param fileName    the reporting source file; null stands for none
    /// @param lineNumber  the reporting line; 0 stands for none
    Exception(std::string const& name, int code, char const* fileName, unsigned int lineNumber);
    /// Shares the cause; all else is copied.
    Exception(Exception const& other);
    /// Shares the cause of `other`, unless that would lead back to this exception; all else is copied.
    Exception& operator=(Exception const& other);
    virtual ~Exception();

    /// Detail text, empty where none was set.
    virtual std::string const& stringParameter() const;
    /// Sets the detail text.
    virtual void stringParameter(std::string const& text);
    /// Detail number, 0 where none was set.
    virtual int intParameter() const;
    /// Sets the detail number.
    virtual void intParameter(int value);
    /// The reporting source file, empty where none was given.
    virtual std::string const& fileName() const;
    /// Sets the reporting source file.
    virtual void fileName(std::string const& name);
    /// Sets the reporting source file; null stands for none.
    virtual void fileName(char const* name);
    /// The reporting line, 0 where none was given.
    virtual unsigned int lineNumber() const;
    /// Sets the reporting line.
    virtual void lineNumber(unsigned int line);

    /// Attaches the failure that led to this one.
    ///
    /// Called with the exception that the innermost handler caught, it keeps that very object, so
    /// its dynamic type and what a derived class adds stay readable; any other object is copied as
    /// `Exception`. No exception becomes a cause of itself: it, too, is copied, and causes that
    /// would lead back to it are left out.
    virtual void cause(Exception const& caught);
    /// The attached cause. Calling it without one is a programming error and ends the process.
    virtual Exception const& cause() const;
    /// True when there is a cause to be read.
    virtual bool hasCause() const;

    /// What kind of failure this is.
    std::string const& name() const { return m_name; }
    /// Its number; whoever throws says what it means.
    int code() const { return m_code; }

    /// One line: name, code, file and line, detail text, then the causes, outermost first. Control
    /// characters are escaped (a newline as "\n"); what was not given is left out.
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
