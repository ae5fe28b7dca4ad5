// An operator new that fails on demand, and the matching operators delete.
#include <cstdlib>
#include <new>

#include "faults/faults.h"

void* operator new(std::size_t size)
{
    void* const memory = Faults::self().refuses_memory() ? nullptr : std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}
