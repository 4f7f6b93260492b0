// Segmented call stacks: a recursive walk over a deep model continues on a
// fresh stack segment when the thread's stack runs low, so evaluating or
// printing a chain of millions of nodes needs no larger thread stack.
//
// Example (a node calling into its operand):
//   double eval(TavAlgorithm alg) const override {
//     return TavDeepCall([&] { return _expr->eval(alg); }) * 2;
//   }
#ifndef TAV_HOST_STACK_H
#define TAV_HOST_STACK_H

#include <cstdint>
#include <type_traits>

#include "base.h"

namespace tav_stack {

/// Lowest stack address at which a deep call may still run directly on the
/// current stack. The all-ones value means "not measured yet" and sends the
/// first deep call of each thread to the slow path, which measures it.
/// Initial-exec: read with one instruction, also from a shared library.
inline thread_local std::uintptr_t limit __attribute__((tls_model("initial-exec"))) = ~std::uintptr_t(0);

/// The current stack pointer, or near it: the real stack even under
/// AddressSanitizer, which may move locals to heap frames.
inline std::uintptr_t here() {
#if defined(__x86_64__)
  std::uintptr_t sp;
  asm("mov %%rsp, %0" : "=r"(sp));
  return sp;
#else
  return reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
#endif
}

/// Measures the thread's stack on first use; true when the caller may go on
/// directly on the current stack.
bool hasRoom();

/// Runs fn(arg) on a fresh stack segment and returns when it has returned;
/// an exception thrown by fn is rethrown here. Throws std::bad_alloc when
/// no segment can be had (nothing has run then).
void runOnSegment(void (*fn)(void*), void* arg);

template <class F>
__attribute__((noinline, cold)) auto slowCall(F f) -> decltype(f()) {
  using R = decltype(f());
  if (hasRoom()) return f();
  if constexpr (std::is_void<R>::value) {
    runOnSegment([](void* p) { (*static_cast<F*>(p))(); }, &f);
  } else {
    static_assert(std::is_default_constructible<R>::value, "a deep call returns a default-constructible value");
    R result{};
    auto call = [&] { result = f(); };
    runOnSegment([](void* p) { (*static_cast<decltype(call)*>(p))(); }, &call);
    return result;
  }
}

}  // namespace tav_stack

/// Calls f() and returns its result. When the thread's stack is close to
/// its end, f runs on a fresh segment instead; otherwise this is one
/// thread-local load and one comparison. Wrap the calls through which a
/// node recurses into its operands (a recursive visitor may do the same).
/// Capture what the call needs by value where it is cheap: a variable whose
/// address is taken must live in memory even on the fast path.
template <class F>
inline auto TavDeepCall(F&& f) -> decltype(f()) {
  if (TAV_LIKELY(tav_stack::here() > tav_stack::limit)) return f();
  // By value: the fast path then never needs f in memory.
  return tav_stack::slowCall<typename std::decay<F>::type>(f);
}

#endif
