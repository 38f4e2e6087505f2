// The C library's own allocator entry points. The interposed functions and
// every allocation the tool makes for itself go straight to these, so that
// nothing the tool does can come back into the interposer.
#ifndef KYHEAP_LIBC_ALLOCATOR_H
#define KYHEAP_LIBC_ALLOCATOR_H

#include <cstddef>

extern "C" {
void* __libc_malloc(size_t size);
void __libc_free(void* block);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void* __libc_valloc(size_t size);
void* __libc_pvalloc(size_t size);
}

#endif  // KYHEAP_LIBC_ALLOCATOR_H
