#ifndef SOLVART_STRING_HELPERS_H
#define SOLVART_STRING_HELPERS_H

#include <string>

namespace Solvane {

class Buffer;
class SVLStaticCharSetFallbacks;

void stringLeftTrim(std::string& text);
void stringRightTrim(std::string& text);
void stringToLowerNoCopy(std::string& text);
std::string copyStringToLower(std::string const& text);
int stringCompareNoCase(std::string const& left, std::string const& right, unsigned int length);
int stringCompareNoCase(char const* left, std::string const& right, unsigned int length);
void stringToUtf8(std::string const& text, Buffer& out, SVLStaticCharSetFallbacks const* fallbacks);

} // namespace Solvane

#endif
