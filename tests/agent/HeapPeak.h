// HeapPeak: the most heap memory held at once, above what was held when it
// was made, while it lives. It counts through the sanitizer's allocation
// hooks, so it works only in the AddressSanitizer build; elsewhere
// `available()` is false.
//
//   HeapPeak peak;
//   work();
//   EXPECT_LT(peak.bytes(), 4096u);
//
// Threading: allocations of every thread count; one HeapPeak at a time.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define ACL_HEAP_PEAK 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ACL_HEAP_PEAK 1
#endif
#endif

#ifdef ACL_HEAP_PEAK
// The sanitizer runtime's allocation interface (GCC installs no header for it).
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*onAlloc)(const volatile void*, std::size_t),
                                              void (*onFree)(const volatile void*));
std::size_t __sanitizer_get_allocated_size(const volatile void* p);
}
#endif

class HeapPeak {
 public:
  static bool available() {
#ifdef ACL_HEAP_PEAK
    return true;
#else
    return false;
#endif
  }

  HeapPeak() {
#ifdef ACL_HEAP_PEAK
    held_ = peak_ = 0;
    __sanitizer_install_malloc_and_free_hooks(onAlloc, onFree);
#endif
  }
  ~HeapPeak() {
#ifdef ACL_HEAP_PEAK
    __sanitizer_install_malloc_and_free_hooks(nullptr, nullptr);
#endif
  }
  HeapPeak(const HeapPeak&) = delete;
  HeapPeak& operator=(const HeapPeak&) = delete;

  std::size_t bytes() const {
    return peak_ > 0 ? static_cast<std::size_t>(peak_) : 0;
  }

 private:
#ifdef ACL_HEAP_PEAK
  static void onAlloc(const volatile void*, std::size_t size) {
    held_ += static_cast<long long>(size);
    if (held_ > peak_) peak_ = held_;
  }
  static void onFree(const volatile void* p) {
    held_ -= static_cast<long long>(__sanitizer_get_allocated_size(p));
  }
#endif
  static inline long long held_ = 0;
  static inline long long peak_ = 0;
};
