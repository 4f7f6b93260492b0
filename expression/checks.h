// The argument checks every builder and handle runs before it allocates:
// empty handles, and operands of different environments. One copy, so that
// every entry point refuses the same mistakes with the same exceptions.
#ifndef TAV_EXPRESSION_CHECKS_H
#define TAV_EXPRESSION_CHECKS_H

#include <type_traits>

#include "env.h"

namespace tav_detail {

/// The pointer itself: TavEmptyHandleException when it is null, and for a
/// model object TavWrongUsage when its environment has ended (TavLive).
template <class P>
P* need(P* p) {
  if constexpr (std::is_base_of<TavMemoryManagerObjectI, P>::value) return TavLive(p);
  else return TavNeed(p);
}

/// The implementation of a handle, or TavEmptyHandleException for an empty one.
template <class H>
auto need(const H& h) -> decltype(h.getImpl()) {
  return need(h.getImpl());
}

/// Throws TavEmptyHandleException when any of the handles is empty, then
/// refuses any whose environment has ended (see need).
template <class... H>
void needAll(const H&... handles) {
  if (((handles.getImpl() == nullptr) || ...)) throw TavEmptyHandleException();
  (need(handles.getImpl()), ...);
}

/// The environment a handle belongs to, after the empty-handle check.
inline TavEnvI* envOf(const TavEnv& env) { return need(env.getImpl()); }
template <class H>
TavEnvI* envOf(const H& h) {
  return need(h.getImpl())->getEnv();
}

/// Refuses operands of two environments with the caller's message.
inline void sameEnv(const TavEnvI* a, const TavEnvI* b, const char* message) {
  if (a != b) throw TavWrongUsage(message, 0);
}

/// Refuses an empty element, or one of another environment than env.
template <class Array>
void elementsIn(const TavEnvI* env, const Array& a, const char* message) {
  const TavInt n = a.getSize();
  for (TavInt i = 0; i < n; ++i) sameEnv(need(a.getObject(i))->getEnv(), env, message);
}

/// Refuses an object that does not live in env (another environment's, or
/// one of an environment that has ended) without reading the object.
inline void livesIn(const TavEnvI* env, const TavMemoryManagerObjectI* obj, const char* message) {
  if (obj && TavMemory::EnvOf(obj) != env) throw TavWrongUsage(message, 0);
}

/// livesIn for many objects in a row: the owner table is read only when an
/// object lies in another 64 KiB unit than the last one found in env, since
/// no owner changes while one operation runs. Objects made one after another
/// share units, so a long array is checked for about one compare each.
class LivesInRun {
 public:
  LivesInRun(const TavEnvI* env, const char* message) : _env(env), _message(message) {}
  void operator()(const TavMemoryManagerObjectI* obj) {
    const std::uintptr_t unit = TavChunkOwners::UnitOf(TavNeed(obj));
    if (TAV_LIKELY(unit == _unit)) return;
    livesIn(_env, obj, _message);
    _unit = unit;
  }

 private:
  const TavEnvI* _env;
  const char* _message;
  std::uintptr_t _unit = ~std::uintptr_t(0);
};

}  // namespace tav_detail

#endif
