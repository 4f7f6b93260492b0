// Environment memory: size-class free lists over 64 KiB chunks, a fixed-size
// allocator for term cells, allocation-failure injection for tests, and the
// sanitizer poisoning that keeps recycled memory visible to AddressSanitizer.
#ifndef TAV_HOST_MEMORY_H
#define TAV_HOST_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "base.h"

#if defined(__SANITIZE_ADDRESS__)
#define TAV_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAV_ASAN 1
#endif
#endif

#ifdef TAV_ASAN
#include <sanitizer/asan_interface.h>
#define TAV_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define TAV_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define TAV_POISON(p, n) ((void)(p), (void)(n))
#define TAV_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

class TavEnvI;
class TavMemory;

/// Every chunk starts on a 64 KiB boundary with this header, so any pointer
/// handed out by an environment leads back to it by masking.
struct TavChunkHeader {
  TavEnvI* env;
  TavChunkHeader* prev;
  TavChunkHeader* next;
  std::size_t bytes;      // whole chunk, header included
  std::size_t slotBytes;  // size class of a small-object chunk, 0 for a large one
  std::size_t mapped;     // 1 when carved from a huge-page region, else 0
};

constexpr std::size_t TavChunkAlign = std::size_t(1) << 16;
constexpr std::size_t TavChunkHeaderSize = 64;

/// Memory of one environment. Freed memory goes to a free list per size
/// class; everything is returned to the system when the environment ends.
class TavMemory {
 public:
  explicit TavMemory(TavEnvI* env);
  ~TavMemory();
  TavMemory(const TavMemory&) = delete;
  TavMemory& operator=(const TavMemory&) = delete;

  void* alloc(std::size_t bytes);
  /// Returns memory from alloc; its size is read from its chunk.
  void free(void* p);
  /// Releases every chunk at once.
  void releaseAll();

  static TavChunkHeader* ChunkOf(const void* p) {
    return reinterpret_cast<TavChunkHeader*>(reinterpret_cast<std::uintptr_t>(p) &
                                             ~(std::uintptr_t)(TavChunkAlign - 1));
  }
  /// The environment that owns a pointer handed out by any TavMemory.
  static TavEnvI* EnvOf(const void* p) { return ChunkOf(p)->env; }

  /// Makes the k-th allocation from now (k >= 1) throw std::bad_alloc; 0 disarms.
  void failAfter(TavInt k) { _failCountdown = k; }
  bool failureArmed() const { return _failCountdown != 0; }
  /// Counts one allocation against the armed failure; throws when it is due.
  void chargeAllocation() {
    if (TAV_UNLIKELY(_failCountdown != 0) && --_failCountdown == 0) throw std::bad_alloc();
  }

  /// Bytes currently handed out (size-class rounded) and not freed.
  std::size_t getLiveBytes() const { return _liveBytes; }
  /// Bytes reserved from the system.
  std::size_t getReservedBytes() const { return _reservedBytes; }

  /// A 64 KiB-aligned chunk of at least `bytes` payload, linked for release.
  void* newChunk(std::size_t bytes, std::size_t slotBytes = 0);

 private:
  static constexpr std::size_t SmallLimit = 512;
  static constexpr std::size_t Classes = SmallLimit / 8 + 1;

  void* allocSmall(std::size_t cls);
  void freeLarge(void* p);
  /// Raw memory for a chunk of total bytes; mapped tells whether it came from a region.
  void* rawChunk(std::size_t total, std::size_t slotBytes, std::size_t& mapped);
  bool newRegion();

  // Once an environment is large, its small chunks come from 2 MiB regions
  // that the system may back with huge pages: models of millions of
  // objects then need far fewer page faults and address translations.
  static constexpr std::size_t RegionBytes = std::size_t(1) << 21;
  static constexpr std::size_t RegionThreshold = std::size_t(4) << 20;
  std::vector<void*> _regions;
  char* _regionNext = nullptr;
  char* _regionEnd = nullptr;

  TavEnvI* _env;
  void* _free[Classes];
  char* _bump[Classes];
  char* _bumpEnd[Classes];
  TavChunkHeader* _chunks;
  TavInt _failCountdown;
  std::size_t _liveBytes;
  std::size_t _reservedBytes;
};

/// Hands out blocks of one fixed size from a free list refilled by chunks.
class TavFixedSizeAllocatorI {
 public:
  explicit TavFixedSizeAllocatorI(std::size_t blockSize) : _size(blockSize) {}
  void* allocateBlock(TavMemory* memory) {
    void* p = _free;
    if (TAV_UNLIKELY(p == nullptr)) return refill(memory);
    TAV_UNPOISON(p, _size);
    _free = *static_cast<void**>(p);
    return p;
  }
  void deallocate(void* p) {
    *static_cast<void**>(p) = _free;
    _free = p;
    TAV_POISON(p, _size);
  }
  std::size_t getBlockSize() const { return _size; }
  /// Forgets every block (their chunks are released by the memory).
  void reset() { _free = nullptr; }

 private:
  void* refill(TavMemory* memory);
  std::size_t _size;
  void* _free = nullptr;
};

#endif
