// Checks of the framework's preconditions, for builds that ask for them.
// Included by Zov.h.
//
// A `REQUIRES:` line says what a caller must not do; where breaking it would
// corrupt state silently (a second member under one key, a notifier that dies
// with reactors still in its list), the code also states it as a check:
//
//   ZOV_DCHECK(!find(key), "a member is already held under this key");
//
// Checks are compiled in when `ZOV_DCHECKS` is defined (the sanitizer test
// build defines it) and cost nothing otherwise: the condition is not
// evaluated. A failed check writes the file, the line, the condition and the
// message to standard error and aborts the process.
#pragma once

namespace Zov {

#ifdef ZOV_DCHECKS
inline constexpr bool kDchecks = true;
#else
inline constexpr bool kDchecks = false;
#endif

namespace Impl {
[[noreturn]] void dcheckFailed(const char* file, int line, const char* condition,
                               const char* message) noexcept;
}  // namespace Impl

}  // namespace Zov

#ifdef ZOV_DCHECKS
#define ZOV_DCHECK(condition, message) \
  ((condition) ? (void)0 : ::Zov::Impl::dcheckFailed(__FILE__, __LINE__, #condition, message))
#else
#define ZOV_DCHECK(condition, message) ((void)sizeof(!(condition)))
#endif
