// Live heap bytes of the program, for the model's memory figure: every allocation through
// operator new carries its size in a header. The program is single-threaded, but the counter is
// atomic so that a library thread could never corrupt it.
#include <atomic>
#include <cstdlib>
#include <new>

#include "tools/Tool.h"

namespace {
std::atomic<int64_t> liveBytes{0};
constexpr size_t header = alignof(std::max_align_t);
}  // namespace

void* operator new(size_t n) {
   void* p = std::malloc(n + header);
   if (!p) throw std::bad_alloc();
   *static_cast<size_t*>(p) = n;
   liveBytes.fetch_add(int64_t(n), std::memory_order_relaxed);
   return static_cast<char*>(p) + header;
}

void* operator new[](size_t n) {
   return operator new(n);
}

// The nothrow forms too (std::stable_sort's temporary buffer takes one): a runtime that supplies
// its own would hand out blocks without the header that delete reads.
void* operator new(size_t n, const std::nothrow_t&) noexcept {
   try {
      return operator new(n);
   } catch (const std::bad_alloc&) {
      return nullptr;
   }
}

void* operator new[](size_t n, const std::nothrow_t& t) noexcept {
   return operator new(n, t);
}

void operator delete(void* p) noexcept {
   if (!p) return;
   char* base = static_cast<char*>(p) - header;
   liveBytes.fetch_sub(int64_t(*reinterpret_cast<size_t*>(base)), std::memory_order_relaxed);
   std::free(base);
}

void operator delete[](void* p) noexcept {
   operator delete(p);
}

void operator delete(void* p, size_t) noexcept {
   operator delete(p);
}

void operator delete[](void* p, size_t) noexcept {
   operator delete(p);
}

void operator delete(void* p, const std::nothrow_t&) noexcept {
   operator delete(p);
}

void operator delete[](void* p, const std::nothrow_t&) noexcept {
   operator delete(p);
}

namespace VexloL3Common::tool {

int64_t liveHeapBytes() {
   return liveBytes.load(std::memory_order_relaxed);
}

}  // namespace VexloL3Common::tool
