#ifndef SOLVART_SEMAPHORE_H
#define SOLVART_SEMAPHORE_H

#include <mutex>

namespace Solvane {

class Semaphore {
public:
    explicit Semaphore(unsigned int count);

    bool trywait();
    void post();

private:
    std::mutex m_mutex;
    unsigned int m_count;
};

} // namespace Solvane

#endif
