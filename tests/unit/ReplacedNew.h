#pragma once

// Puts the program's own Allocate() between everything and malloc. For one file of a program.

#include <cstdlib>
#include <new>

namespace {

void* Allocate(size_t size);

/// @return memory as operator new gives it
void* AllocateReally(size_t size) {
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

}  // namespace

void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
