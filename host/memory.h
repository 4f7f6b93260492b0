// Environment memory: size-class free lists over 64 KiB chunks carved from
// mapped regions, a fixed-size allocator for term cells, allocation-failure
// injection for tests, and the sanitizer poisoning that keeps recycled memory
// visible to AddressSanitizer.
#ifndef TAV_HOST_MEMORY_H
#define TAV_HOST_MEMORY_H

#include <atomic>
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

/// Marks a function that passes on the object pointer of a handle, which may
/// have outlived its environment: the pointer is checked through its chunk
/// header, so the sanitizer must not inspect the object itself.
#if defined(__GNUC__)
#define TAV_HANDLE_POINTER __attribute__((no_sanitize("vptr")))
#else
#define TAV_HANDLE_POINTER
#endif

class TavEnvI;
class TavMemory;

/// Size and alignment of a chunk, so that masking an address finds its chunk.
constexpr std::size_t TavChunkAlign = std::size_t(1) << 16;
/// Bytes reserved at the start of a chunk for its header.
constexpr std::size_t TavChunkHeaderSize = 64;
/// Slab chunks are made of pages, each serving one size class, so that a
/// small environment packs all its classes into one chunk.
constexpr std::size_t TavPageBytes = 4096;
/// Pages per chunk.
constexpr std::size_t TavChunkPages = TavChunkAlign / TavPageBytes;
/// The page class of the blocks of a fixed-size allocator (never given to free()).
constexpr unsigned char TavFixedPageClass = 255;

/// Every chunk starts on a 64 KiB boundary with this header, so any pointer
/// handed out by an environment leads back to it by masking.
struct TavChunkHeader {
  TavEnvI* env;            // null for a dead chunk or a free large one
  TavChunkHeader* prev;    // large chunks: the live or the spare list
  TavChunkHeader* next;    // slab chunks: the next chunk whose blocks are being ordered
  std::size_t bytes;       // bytes reserved: the chunk, header included
  std::size_t extent;      // address space of a large chunk (64 KiB multiple)
  union {
    std::size_t ownMapping;  // large chunks: 1 when a mapping of its own
    void* sorting;           // slab chunks: its free blocks being put in address order
  };
  // The size class of each page (0 for a large chunk or an unused page):
  // free() reads the size of a block from its page.
  unsigned char pageClass[TavChunkPages];
};
static_assert(sizeof(TavChunkHeader) == TavChunkHeaderSize, "the header fills its slot");

/// The owner of every 64 KiB unit of address space that environments ever
/// used, in a two-level table: the owners of neighbouring chunks sit side by
/// side, so checking the environment of many scattered variables touches a
/// few cache lines rather than one chunk header each (headers all fall in the
/// same cache sets). A unit reads null until a chunk is made there and again
/// once it is released, for ever after: leaves are never unmapped, so a
/// dangling pointer of an ended environment reads null and never faults.
struct TavChunkOwners {
  static constexpr unsigned UnitBits = 16;
  static constexpr unsigned LeafBits = 16;
  static constexpr unsigned TopBits = 47 - UnitBits - LeafBits;
  typedef std::atomic<TavEnvI*> Leaf[std::size_t(1) << LeafBits];
  static std::atomic<Leaf*> Top[std::size_t(1) << TopBits];

  /// The 64 KiB unit of address space p lies in: one owner per unit.
  static std::uintptr_t UnitOf(const void* p) { return reinterpret_cast<std::uintptr_t>(p) >> UnitBits; }
  static TavEnvI* Get(const void* p) {
    const std::uintptr_t unit = UnitOf(p);
    Leaf* leaf = Top[(unit >> LeafBits) & ((std::uintptr_t(1) << TopBits) - 1)].load(std::memory_order_acquire);
    return leaf ? (*leaf)[unit & ((std::uintptr_t(1) << LeafBits) - 1)].load(std::memory_order_relaxed) : nullptr;
  }
  /// Makes sure a leaf covers [base, base + bytes); false when the system has no memory for it.
  static bool Cover(const char* base, std::size_t bytes);
  /// Records env as the owner of the units of [base, base + bytes) (covered before).
  static void Set(const char* base, std::size_t bytes, TavEnvI* env);
};

/// Address space mapped for environments: 64 KiB-aligned, whole pages.
struct TavMemorySpan {
  char* base;
  std::size_t bytes;
};

/// Memory of one environment. Objects up to SlabLimit bytes come from size
/// classes (8-byte steps up to 512, then steps of at most 1/4): a class
/// starts with a few pages of a chunk shared with other classes and takes
/// whole 64 KiB chunks once it is busy. Larger objects get a chunk of their
/// own, rounded to the page. Freed blocks wait apart until a class runs out,
/// and come back in address order within their chunk if they were freed in
/// scattered places, so that a structure built from recycled blocks is
/// walked as if fresh. Everything is returned to the system when the
/// environment ends.
class TavMemory {
 public:
  explicit TavMemory(TavEnvI* env);
  ~TavMemory();
  TavMemory(const TavMemory&) = delete;
  TavMemory& operator=(const TavMemory&) = delete;

  void* alloc(std::size_t bytes) {
    chargeAllocation();
    if (TAV_LIKELY(bytes <= SmallLimit)) {
      std::size_t cls = bytes == 0 ? 1 : (bytes + 7) / 8;
      void* p = allocClass(cls);
      _liveBytes += cls * 8;
      return p;
    }
    return allocLarger(bytes);
  }
  /// Returns memory from alloc; its size is read from its chunk.
  void free(void* p);
  /// Releases every chunk at once.
  void releaseAll();

  static TavChunkHeader* ChunkOf(const void* p) {
    return reinterpret_cast<TavChunkHeader*>(reinterpret_cast<std::uintptr_t>(p) &
                                             ~(std::uintptr_t)(TavChunkAlign - 1));
  }
  /// The environment that owns a pointer handed out by any TavMemory; null
  /// once that environment has ended or the memory was freed.
  static TavEnvI* EnvOf(const void* p) { return TavChunkOwners::Get(p); }

  /// Makes the k-th allocation from now (k >= 1) throw std::bad_alloc; 0 disarms.
  void failAfter(TavInt k) { _failCountdown = k; }
  bool failureArmed() const { return _failCountdown != 0; }
  /// Counts one allocation against the armed failure; throws when it is due.
  void chargeAllocation() {
    if (TAV_UNLIKELY(_failCountdown != 0) && --_failCountdown == 0) throw std::bad_alloc();
  }

  /// Bytes currently handed out (size-class rounded) and not freed.
  std::size_t getLiveBytes() const { return _liveBytes; }
  /// Bytes reserved from the system: whole slab chunks, the pages handed
  /// out of shared ones, and large chunks rounded to the page.
  std::size_t getReservedBytes() const { return _reservedBytes; }

  /// Room for blocks of blockBytes in pages marked pageClass, returned as
  /// [begin, end): pages of a shared chunk while `taken` (bytes taken so far
  /// for these blocks, updated) is small, a whole chunk after.
  char* takeSlab(std::size_t blockBytes, unsigned char pageClass, std::size_t& taken, char*& end);
  /// A list of free blocks linked through their first word, relinked in
  /// address order within each chunk. Allocates nothing.
  static void* AddressOrder(void* list);
  /// The free list in address order within each chunk when its first
  /// blocks lie far apart from one another, else as it is: freeing stays
  /// two stores, and a list freed in order is not walked again.
  static void* Reordered(void* list);

  /// Largest object served from a size class.
  static constexpr std::size_t SlabLimit = 16368;
  /// The size of class cls (cls < ClassCount), and the class of a size up to SlabLimit.
  static std::size_t ClassSize(std::size_t cls);
  static std::size_t ClassOf(std::size_t bytes);
  static constexpr std::size_t SmallLimit = 512;
  static constexpr std::size_t MidClasses = 24;
  static constexpr std::size_t ClassCount = SmallLimit / 8 + 1 + MidClasses;

  /// Address space of dead chunks that must wait before a new chunk may
  /// reuse it: a dangling pointer soon after an end reads a dead header.
  static constexpr std::size_t QuarantineBytes = std::size_t(1) << 30;

 private:
  void* allocClass(std::size_t cls) {
    if (void* p = _free[cls]) {
      TAV_UNPOISON(p, _size[cls]);
      _free[cls] = *static_cast<void**>(p);
      return p;
    }
    return refillClass(cls);
  }
  void* refillClass(std::size_t cls);
  void* allocLarger(std::size_t bytes);
  void* allocLarge(std::size_t bytes);
  void freeLarge(TavChunkHeader* h);
  /// 64 KiB-aligned address space for a chunk of extent bytes, in the current region or a new one.
  char* takeSpace(std::size_t extent);
  bool newRegion(std::size_t atLeast);

  // Slab chunks and large chunks are carved from regions mapped for this
  // environment; regions grow to 2 MiB, which the system may back with
  // huge pages once the environment is large.
  static constexpr std::size_t FirstRegionBytes = std::size_t(1) << 19;
  static constexpr std::size_t RegionBytes = std::size_t(1) << 21;
  static constexpr std::size_t HugeThreshold = std::size_t(4) << 20;
  static constexpr std::size_t SpareLists = RegionBytes / TavChunkAlign + 1;
  std::vector<TavMemorySpan> _regions;
  std::size_t _nextRegionBytes = FirstRegionBytes;
  char* _regionNext = nullptr;
  char* _regionEnd = nullptr;

  // The pages of the current shared chunk from _sharedPage on are unused.
  TavChunkHeader* _shared = nullptr;
  std::size_t _sharedPage = TavChunkPages;

  TavEnvI* _env;
  void* _free[ClassCount];      // handed out first, in address order when it matters
  void* _returned[ClassCount];  // freed since, in the order of freeing
  std::size_t _taken[ClassCount];  // slab bytes taken by each class
  char* _bump[ClassCount];
  char* _bumpEnd[ClassCount];
  std::size_t _size[ClassCount];
  TavChunkHeader* _large;                // live large chunks
  TavChunkHeader* _spare[SpareLists];    // freed large chunks of a region, by extent
  TavInt _failCountdown;
  std::size_t _liveBytes;
  std::size_t _reservedBytes;
};

/// Hands out blocks of one fixed size from a free list refilled by slabs of
/// the memory. Freed blocks wait apart until the free list runs out, then
/// follow in address order within their chunk when they came back scattered,
/// so that a list built from them reads memory in order.
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
    *static_cast<void**>(p) = _returned;
    _returned = p;
    TAV_POISON(p, _size);
  }
  std::size_t getBlockSize() const { return _size; }
  /// Forgets every block (their chunks are released by the memory).
  void reset() {
    _free = _returned = nullptr;
    _taken = 0;
  }

 private:
  void* refill(TavMemory* memory);
  std::size_t _size;
  void* _free = nullptr;
  void* _returned = nullptr;
  std::size_t _taken = 0;
};

/// Throws TavWrongUsage for an object of an ended environment.
[[noreturn]] void TavThrowEnded();

/// Ends what a handle holds, unless its environment has ended and taken it
/// already (nothing of the object is read then).
template <class P>
void TavEndLive(P* p) {
  if (p && TavMemory::EnvOf(p)) p->end();
}

/// The object behind a handle: TavEmptyHandleException when there is none,
/// TavWrongUsage when its environment has ended. The owner of the object's
/// memory is looked up without reading the object, which an ended
/// environment has given back.
template <class P>
P* TavLive(P* p) {
  TavNeed(p);
  if (TAV_UNLIKELY(TavMemory::EnvOf(p) == nullptr)) TavThrowEnded();
  return p;
}

#endif
