#ifndef SOLVART_EXCEPTION_H
#define SOLVART_EXCEPTION_H

#include <memory>
#include <string>

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

} // namespace Solvane

#endif
