// Memory of small objects, kept by the thread that gave it back.
#include <solvane/ldap/ObjectMemory.h>

#include <array>
#include <atomic>
#include <new>

#include <pthread.h>

namespace Solvane {

namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(hwaddress_sanitizer) ||                      \
    __has_feature(memory_sanitizer)
#define SOLVANE_MEMORY_IS_WATCHED
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_HWADDRESS__) ||                            \
    defined(SOLVANE_MEMORY_IS_WATCHED)
constexpr bool mayKeep = false;
#else
constexpr bool mayKeep = true;
#endif

constexpr std::size_t grain = 8; // bytes by which sizes of such objects differ
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

/// What a thread keeps. Without constructor and destructor, so that it is there to a thread's end.
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

std::atomic<bool> g_isWatching{false}; // still here when static objects are gone

/// Tells of the ends of threads. A thread_local object would, too, but would end the process where
/// there is no memory to register it.
class ThreadEnds {
public:
    ThreadEnds() { g_isWatching = pthread_key_create(&m_key, clear) == 0; }
    /// At the end of the process, or where the library goes before it. Other threads keep then what
    /// they have.
    ~ThreadEnds()
    {
        clear(&t_shelves);
        if (g_isWatching.exchange(false)) {
            pthread_key_delete(m_key);
        }
    }
    ThreadEnds(ThreadEnds const&) = delete;
    ThreadEnds& operator=(ThreadEnds const&) = delete;

    bool watch(Shelves& shelves) const { return pthread_setspecific(m_key, &shelves) == 0; }

private:
    pthread_key_t m_key = 0;
};

bool isOpen(Shelves& shelves)
{
    if (shelves.state == State::unused) {
        static ThreadEnds const ends;
        shelves.state = g_isWatching && ends.watch(shelves) ? State::open : State::closed;
    }
    return shelves.state == State::open;
}

} // namespace

// NOLINTNEXTLINE(misc-new-delete-overloads): as in the header
void* ObjectMemory::operator new(std::size_t bytes)
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

void ObjectMemory::operator delete(void* memory, std::size_t bytes) noexcept
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
