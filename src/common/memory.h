// Memory helpers: allocation that never hands back a null pointer, freeing that clears the
// caller's pointer, and copies of byte areas into fresh heap areas.
//
// Ownership: every area handed out here belongs to the caller, who gives it back with
// `FreeMallocArea` (or `free`). `mem_alloc_copy` takes over and frees the area it is given.
//
// Threads: every operation may run in several threads at once.
#ifndef QX_COMMON_MEMORY_H_
#define QX_COMMON_MEMORY_H_

#include <stddef.h>

// The message written to standard output before the process ends for lack of memory.
inline constexpr const char* kMemAllocFailureFormat =
    "error on calloc()-call, MemAllocRetArea(), '%s'\n";

// A zeroed area of `msgLength` bytes; never null. When memory runs out the process writes
// the message above (with the system's text of the error) to standard output and ends with
// exit status 1. An area of 0 bytes is still a distinct, freeable area.
void* MemAllocRetArea(size_t msgLength);

// Frees `*fArea` and sets it to null; a null `*fArea` (or a null `fArea`) is left alone, so a
// second call is harmless. `Text` names the area for the reader and has no effect.
void FreeMallocArea(void** fArea, const char* Text);

// A new zeroed area of `Length` + 2 bytes holding the first `Length` bytes of `Was` (nothing
// copied when `Was` is null). Clears errno first. A negative `Length` counts as 0. Never null.
char* MemCopy(const char* Was, int Length);

// Frees `dst` when it is not null, then returns a new area of `len` + 2 bytes holding `len`
// bytes of `src` followed by two NUL bytes. Unlike MemCopy this can fail: when the area cannot
// be had it returns null and copies nothing (`dst` is freed all the same). A negative `len`
// counts as 0; a null `src` leaves the `len` bytes zero.
char* mem_alloc_copy(char* dst, const char* src, int len);

#endif  // QX_COMMON_MEMORY_H_
