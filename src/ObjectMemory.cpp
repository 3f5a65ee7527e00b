// Memory of small objects, kept by the thread that gave it back.
#include <solvane/ldap/ObjectMemory.h>

#include <array>
#include <new>

#include <pthread.h>

namespace Solvane {

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool mayKeep = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool mayKeep = false;
#else
constexpr bool mayKeep = true;
#endif
#else
constexpr bool mayKeep = true;
#endif

constexpr std::size_t grain = 16; // bytes by which sizes differ
constexpr std::size_t largestKept = 512;
constexpr unsigned int mostKept = 32;

struct Spare {
    Spare* next;
};

struct Shelf {
    Spare* first;
    unsigned int count;
};

enum class State { unused, open, closed };

/// What a thread keeps. Without constructor and destructor, so that it is there at any time.
struct Shelves {
    std::array<Shelf, largestKept / grain> bySize;
    State state;
};

thread_local Shelves t_shelves;

std::size_t shelfOf(std::size_t bytes) { return (bytes - 1) / grain; }

/// At the end of a thread.
void clear(void* value)
{
    auto& shelves = *static_cast<Shelves*>(value);
    shelves.state = State::closed;
    for (Shelf& shelf : shelves.bySize) {
        while (shelf.first != nullptr) {
            Spare* const spare = shelf.first;
            shelf.first = spare->next;
            ::operator delete(spare);
        }
    }
}

/// Tells of the ends of threads. A thread_local object would, too, but would end the process where
/// there is no memory to register it.
class ThreadEnds {
public:
    ThreadEnds() : m_isThere(pthread_key_create(&m_key, clear) == 0) {}
    ~ThreadEnds()
    {
        if (m_isThere) {
            pthread_key_delete(m_key); // the library may go before its threads
        }
    }
    ThreadEnds(ThreadEnds const&) = delete;
    ThreadEnds& operator=(ThreadEnds const&) = delete;

    bool watch(Shelves& shelves) const
    {
        return m_isThere && pthread_setspecific(m_key, &shelves) == 0;
    }

private:
    pthread_key_t m_key = 0;
    bool const m_isThere;
};

bool isOpen(Shelves& shelves)
{
    if (shelves.state == State::unused) {
        static ThreadEnds const ends;
        shelves.state = ends.watch(shelves) ? State::open : State::closed;
    }
    return shelves.state == State::open;
}

} // namespace

void* ObjectMemory::take(std::size_t bytes)
{
    if (!mayKeep || bytes == 0 || bytes > largestKept) {
        return ::operator new(bytes);
    }
    std::size_t const number = shelfOf(bytes);
    Shelf& shelf = t_shelves.bySize[number];
    if (shelf.first == nullptr) {
        return ::operator new((number + 1) * grain);
    }
    Spare* const spare = shelf.first;
    shelf.first = spare->next;
    --shelf.count;
    return spare;
}

void ObjectMemory::giveBack(void* memory, std::size_t bytes) noexcept
{
    if (memory == nullptr) {
        return;
    }
    Shelves& shelves = t_shelves;
    if (!mayKeep || bytes == 0 || bytes > largestKept || !isOpen(shelves)) {
        ::operator delete(memory);
        return;
    }
    Shelf& shelf = shelves.bySize[shelfOf(bytes)];
    if (shelf.count == mostKept) {
        ::operator delete(memory);
        return;
    }
    shelf.first = new (memory) Spare{shelf.first};
    ++shelf.count;
}

} // namespace Solvane
