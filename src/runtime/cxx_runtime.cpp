// The few pieces of the C++ runtime that clientmgr and clientmgrctl call,
// linked into them so that neither needs the shared C++ library on the
// device: no libstdc++.so in flash, and none of its relocated data pages in
// each process's private memory (CLIENTMGR_STATIC_CXX, on by default).
//
// The programs throw no exceptions and catch none: what the C++ library
// would throw (out of memory, a length error) ends the program here, with
// one line on standard error, exactly where an uncaught exception would have
// ended it. The rest of the library comes from its static archive, which
// links only what is used.
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

[[noreturn]] void fail(const char* what) {
  static const char kPrefix[] = "terminate: ";
  (void)!::write(2, kPrefix, sizeof kPrefix - 1);
  if (what != nullptr) (void)!::write(2, what, std::strlen(what));
  (void)!::write(2, "\n", 1);
  std::abort();
}

void* allocate_or_null(std::size_t size) { return std::malloc(size == 0 ? 1 : size); }

void* allocate(std::size_t size) {
  void* block = allocate_or_null(size);
  if (block == nullptr) fail("out of memory");
  return block;
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate_or_null(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate_or_null(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

// The C++ library's own hooks for what it would throw (its -fno-exceptions
// support names them; a program may define them).
namespace std {

void __throw_bad_alloc() { fail("out of memory"); }
void __throw_bad_array_new_length() { fail("bad array new length"); }
void __throw_bad_function_call() { fail("bad function call"); }
void __throw_logic_error(const char* what) { fail(what); }
void __throw_length_error(const char* what) { fail(what); }
void __throw_out_of_range(const char* what) { fail(what); }
void __throw_out_of_range_fmt(const char* what, ...) { fail(what); }
void __throw_invalid_argument(const char* what) { fail(what); }
void __throw_system_error(int) { fail("system error"); }

}  // namespace std
