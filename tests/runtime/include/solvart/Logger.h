#ifndef SOLVART_LOGGER_H
#define SOLVART_LOGGER_H

namespace Solvane {

class Logger {
public:
    Logger(Logger const&) = delete;
    Logger& operator=(Logger const&) = delete;

    static Logger& instance(bool reopen);

    void log(unsigned int category, int flags, char const* format, ...);

private:
    Logger() = default;
};

} // namespace Solvane

#endif
