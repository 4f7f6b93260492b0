// What every object held in an environment, and every handle, builds on:
// the memory-managed object root and the environment handle. Arrays and
// domains need no more of the environment than these names.
#ifndef TAV_HOST_OBJECT_H
#define TAV_HOST_OBJECT_H

#include <cstddef>

#include "memory.h"

class TavEnvI;

/// Base of everything allocated in an environment's memory: placement in an
/// environment, and deletion that returns the bytes to it.
class TavMemoryManagerObjectI {
 public:
  /// The environment whose memory holds this object; null once it has ended.
  TavEnvI* getEnv() const { return TavMemory::EnvOf(this); }
  /// Memory of env (defined inline with the environment, in env.h).
  inline static void* operator new(std::size_t bytes, TavEnvI* env);
  static void operator delete(void* p, TavEnvI* env);
  static void operator delete(void* p, std::size_t bytes);
  static void* operator new(std::size_t) = delete;
};

/// Handle over an environment. A default-constructed TavEnv makes a new one.
class TavEnv {
 public:
  TavEnv();
  TavEnv(TavEnvI* impl) : _impl(impl) {}
  TavEnvI* getImpl() const { return _impl; }
  /// Destroys every object of the environment and the environment itself.
  void end();
  bool operator==(const TavEnv& o) const { return _impl == o._impl; }
  bool operator!=(const TavEnv& o) const { return _impl != o._impl; }

 private:
  TavEnvI* _impl;
};

#endif
