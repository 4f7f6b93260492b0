// Environment memory: size classes, regions, large chunks, the process-wide
// quarantine of dead chunks and the fixed-size free list.
#include "memory.h"

#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#if defined(TAV_ASAN) && defined(__has_include)
#if __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#define TAV_LSAN_ROOTS 1
#endif
#endif

namespace {

// ------------------------------------------------------------------ size classes

constexpr std::size_t SlabPayload = TavChunkAlign - TavChunkHeaderSize;
constexpr std::size_t FirstMid = TavMemory::SmallLimit / 8 + 1;
constexpr std::size_t Buckets = (TavMemory::SlabLimit + 63) / 64 + 1;

struct ClassTable {
  std::size_t size[TavMemory::ClassCount];
  std::size_t count;
  unsigned char byBucket[Buckets];  // first class of at least 64 (k - 1) + 1 bytes
};

// Up to 512 bytes, every multiple of 8. Above, each step grows by about an
// eighth, then widens to the largest multiple of 16 that still packs the same
// number of blocks into a chunk: no chunk wastes more than a few bytes.
constexpr ClassTable makeClassTable() {
  ClassTable t{};
  for (std::size_t c = 1; c < FirstMid; ++c) t.size[c] = c * 8;
  std::size_t n = FirstMid;
  std::size_t s = TavMemory::SmallLimit;
  while (n < TavMemory::ClassCount) {
    std::size_t step = std::max<std::size_t>(16, (s / 8 + 15) / 16 * 16);
    std::size_t perChunk = SlabPayload / (s + step);
    if (perChunk < 4) break;
    s = SlabPayload / perChunk / 16 * 16;
    t.size[n++] = s;
  }
  t.count = n;
  std::size_t c = FirstMid;
  for (std::size_t k = TavMemory::SmallLimit / 64 + 1; k < Buckets; ++k) {
    while (c + 1 < n && t.size[c] < 64 * (k - 1) + 1) ++c;
    t.byBucket[k] = (unsigned char)c;
  }
  return t;
}

constexpr ClassTable Classes = makeClassTable();
static_assert(Classes.count == TavMemory::ClassCount, "every class slot is used");
static_assert(Classes.size[TavMemory::ClassCount - 1] == TavMemory::SlabLimit, "the last class is the slab limit");
static_assert(TavMemory::ClassCount < TavFixedPageClass, "a page class fits a byte");

// A class takes pages of shared chunks until it holds this much, then whole
// chunks: a small model pays for a few pages, a large one packs its chunks.
constexpr std::size_t BusyBytes = std::size_t(16) << 10;

std::size_t pageBytes() {
  static const std::size_t page = (std::size_t)sysconf(_SC_PAGESIZE);
  return page;
}

std::size_t roundUp(std::size_t n, std::size_t to) { return (n + to - 1) & ~(to - 1); }

#if defined(__GNUC__)
#define TAV_NO_ASAN __attribute__((no_sanitize("address")))
#else
#define TAV_NO_ASAN
#endif

// ------------------------------------------------------------------ mapping

void registerRoot(void* p, std::size_t bytes) {
#ifdef TAV_LSAN_ROOTS
  // Objects in environment memory may own heap blocks: the leak checker
  // must look inside live chunks as it does inside the heap.
  __lsan_register_root_region(p, bytes);
#else
  (void)p;
  (void)bytes;
#endif
}

void unregisterRoot(void* p, std::size_t bytes) {
#ifdef TAV_LSAN_ROOTS
  __lsan_unregister_root_region(p, bytes);
#else
  (void)p;
  (void)bytes;
#endif
}

/// bytes of fresh zeroed memory starting on a multiple of align; null when
/// the system has none.
char* mapAligned(std::size_t bytes, std::size_t align) {
  const std::size_t len = bytes + align - pageBytes();
  void* raw = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = (start + align - 1) & ~(std::uintptr_t)(align - 1);
  if (aligned > start) munmap(raw, aligned - start);
  const std::size_t tail = start + len - (aligned + bytes);
  if (tail) munmap(reinterpret_cast<char*>(aligned + bytes), tail);
  return reinterpret_cast<char*>(aligned);
}

// ------------------------------------------------------------------ quarantine

using Span = TavMemorySpan;

/// Dead chunks of every environment, oldest first. They stay mapped with
/// their pages given back, so a dangling pointer still reads a header, and a
/// zero one: the environment is null. They are handed out again only when
/// more than QuarantineBytes wait. Trivially destructible and constant
/// initialised: environments may end during static destruction.
struct Quarantine {
  static constexpr std::size_t Capacity = 4096;
  Span ring[Capacity] = {};
  std::size_t first = 0;
  std::size_t count = 0;
  std::size_t bytes = 0;
  std::atomic<bool> busy{false};

  void lock() {
    while (busy.exchange(true, std::memory_order_acquire)) sched_yield();
  }
  void unlock() { busy.store(false, std::memory_order_release); }
};
Quarantine quarantine;

/// Gives the pages of a dead span back and queues its address space.
void quarantinePut(char* base, std::size_t bytes) {
  TAV_UNPOISON(base, bytes);
  madvise(base, bytes, MADV_DONTNEED);
  Span evicted{nullptr, 0};
  quarantine.lock();
  if (quarantine.count == Quarantine::Capacity) {
    evicted = quarantine.ring[quarantine.first];
    quarantine.first = (quarantine.first + 1) % Quarantine::Capacity;
    --quarantine.count;
    quarantine.bytes -= evicted.bytes;
  }
  quarantine.ring[(quarantine.first + quarantine.count) % Quarantine::Capacity] = Span{base, bytes};
  ++quarantine.count;
  quarantine.bytes += bytes;
  quarantine.unlock();
  // Only the oldest of a full ring is returned to the system.
  if (evicted.base) munmap(evicted.base, evicted.bytes);
}

/// The oldest dead span of at least `bytes`, once the quarantine is large;
/// older spans too small for the request are returned to the system.
Span quarantineTake(std::size_t bytes) {
  for (;;) {
    quarantine.lock();
    if (quarantine.bytes <= TavMemory::QuarantineBytes || quarantine.count == 0) {
      quarantine.unlock();
      return Span{nullptr, 0};
    }
    Span s = quarantine.ring[quarantine.first];
    quarantine.first = (quarantine.first + 1) % Quarantine::Capacity;
    --quarantine.count;
    quarantine.bytes -= s.bytes;
    quarantine.unlock();
    if (s.bytes >= bytes) return s;
    munmap(s.base, s.bytes);
  }
}

/// A span of at least bytes: an old dead one, or a fresh mapping.
Span mapSpan(std::size_t bytes, std::size_t align) {
  Span s = quarantineTake(bytes);
  if (s.base == nullptr) s = Span{mapAligned(bytes, align), bytes};
  return s;
}

}  // namespace

// ------------------------------------------------------------------ chunk owners

std::atomic<TavChunkOwners::Leaf*> TavChunkOwners::Top[std::size_t(1) << TopBits];

namespace {
constexpr std::uintptr_t TopMask = (std::uintptr_t(1) << TavChunkOwners::TopBits) - 1;
constexpr std::uintptr_t LeafMask = (std::uintptr_t(1) << TavChunkOwners::LeafBits) - 1;
std::atomic<bool> coverBusy{false};
}  // namespace

bool TavChunkOwners::Cover(const char* base, std::size_t bytes) {
  const std::uintptr_t first = UnitOf(base);
  const std::uintptr_t last = UnitOf(base + bytes - 1);
  for (std::uintptr_t top = first >> LeafBits; top <= last >> LeafBits; ++top) {
    if (Top[top & TopMask].load(std::memory_order_acquire)) continue;
    while (coverBusy.exchange(true, std::memory_order_acquire)) sched_yield();
    bool ok = true;
    if (!Top[top & TopMask].load(std::memory_order_relaxed)) {
      void* leaf = mmap(nullptr, sizeof(Leaf), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (leaf == MAP_FAILED) ok = false;
      else Top[top & TopMask].store(static_cast<Leaf*>(leaf), std::memory_order_release);
    }
    coverBusy.store(false, std::memory_order_release);
    if (!ok) return false;
  }
  return true;
}

void TavChunkOwners::Set(const char* base, std::size_t bytes, TavEnvI* env) {
  const std::uintptr_t first = UnitOf(base);
  const std::uintptr_t last = UnitOf(base + bytes - 1);
  for (std::uintptr_t unit = first; unit <= last; ++unit)
    (*Top[(unit >> LeafBits) & TopMask].load(std::memory_order_relaxed))[unit & LeafMask].store(
        env, std::memory_order_relaxed);
}

// ------------------------------------------------------------------ TavMemory

std::size_t TavMemory::ClassSize(std::size_t cls) { return Classes.size[cls]; }

std::size_t TavMemory::ClassOf(std::size_t bytes) {
  if (bytes <= SmallLimit) return bytes == 0 ? 1 : (bytes + 7) / 8;
  std::size_t c = Classes.byBucket[(bytes + 63) / 64];
  return Classes.size[c] < bytes ? c + 1 : c;
}

TavMemory::TavMemory(TavEnvI* env)
    : _env(env), _large(nullptr), _failCountdown(0), _liveBytes(0), _reservedBytes(0) {
  std::memset(_free, 0, sizeof(_free));
  std::memset(_returned, 0, sizeof(_returned));
  std::memset(_taken, 0, sizeof(_taken));
  std::memset(_bump, 0, sizeof(_bump));
  std::memset(_bumpEnd, 0, sizeof(_bumpEnd));
  std::memset(_spare, 0, sizeof(_spare));
  for (std::size_t c = 0; c < ClassCount; ++c) _size[c] = Classes.size[c];
}

TavMemory::~TavMemory() { releaseAll(); }

bool TavMemory::newRegion(std::size_t atLeast) {
  const std::size_t want = std::max(_nextRegionBytes, atLeast);
  const bool huge = want == RegionBytes && _reservedBytes >= HugeThreshold;
  Span s = mapSpan(want, huge ? RegionBytes : TavChunkAlign);
  if (s.base == nullptr) return false;
  if (!TavChunkOwners::Cover(s.base, s.bytes)) {
    munmap(s.base, s.bytes);
    return false;
  }
#ifdef MADV_HUGEPAGE
  // Models of millions of objects then need far fewer page faults.
  if (huge) madvise(s.base, s.bytes, MADV_HUGEPAGE);
#endif
  try {
    _regions.push_back(s);
  } catch (...) {
    munmap(s.base, s.bytes);
    return false;
  }
  registerRoot(s.base, s.bytes);
  _regionNext = s.base;
  _regionEnd = s.base + s.bytes;
  if (_nextRegionBytes < RegionBytes) _nextRegionBytes *= 2;
  return true;
}

char* TavMemory::takeSpace(std::size_t extent) {
  // What is left of a region too small for the request is never touched.
  if (std::size_t(_regionEnd - _regionNext) < extent && !newRegion(extent)) throw std::bad_alloc();
  char* p = _regionNext;
  _regionNext += extent;
  return p;
}

namespace {
/// Heads a fresh 64 KiB slab chunk of env whose pages are all marked pageClass.
TavChunkHeader* slabChunk(char* base, TavEnvI* env, unsigned char pageClass) {
  TavChunkHeader* h = reinterpret_cast<TavChunkHeader*>(base);
  h->env = env;
  TavChunkOwners::Set(base, TavChunkAlign, env);
  h->prev = h->next = nullptr;
  h->bytes = h->extent = TavChunkAlign;
  h->sorting = nullptr;
  std::memset(h->pageClass, pageClass, sizeof(h->pageClass));
  TAV_POISON(base + TavChunkHeaderSize, SlabPayload);
  return h;
}
}  // namespace

char* TavMemory::takeSlab(std::size_t blockBytes, unsigned char pageClass, std::size_t& taken, char*& end) {
  if (taken < BusyBytes) {
    // The fewest pages, from the next unused one, that hold one block.
    auto pagesFrom = [&](std::size_t page) {
      const std::size_t skip = page == 0 ? TavChunkHeaderSize : 0;
      return (skip + blockBytes + TavPageBytes - 1) / TavPageBytes;
    };
    std::size_t page = _sharedPage;
    if (_shared == nullptr || page + pagesFrom(page) > TavChunkPages) {
      // The unused pages of the old shared chunk stay unused.
      _shared = slabChunk(takeSpace(TavChunkAlign), _env, 0);
      _sharedPage = page = 0;
      // Only the pages handed out count, as for large chunks: the others
      // are never touched.
      _reservedBytes += TavPageBytes;
    }
    const std::size_t pages = pagesFrom(page);
    std::memset(_shared->pageClass + page, pageClass, pages);
    _reservedBytes += (pages - (page == 0 ? 1 : 0)) * TavPageBytes;
    _sharedPage = page + pages;
    char* base = reinterpret_cast<char*>(_shared);
    end = base + _sharedPage * TavPageBytes;
    taken += pages * TavPageBytes;
    return base + (page == 0 ? TavChunkHeaderSize : page * TavPageBytes);
  }
  char* base = takeSpace(TavChunkAlign);
  slabChunk(base, _env, pageClass);
  _reservedBytes += TavChunkAlign;
  taken += TavChunkAlign;
  end = base + TavChunkAlign;
  return base + TavChunkHeaderSize;
}

void* TavMemory::refillClass(std::size_t cls) {
  if (void* list = _returned[cls]) {
    // Blocks freed one by one in scattered places would otherwise be handed
    // out in that order, and whatever is built from them read in it.
    _free[cls] = Reordered(list);
    _returned[cls] = nullptr;
    return allocClass(cls);
  }
  // Each page serves one size class, so a pointer's size is in its chunk.
  const std::size_t bytes = _size[cls];
  if (_bump[cls] == nullptr || std::size_t(_bumpEnd[cls] - _bump[cls]) < bytes)
    _bump[cls] = takeSlab(bytes, (unsigned char)cls, _taken[cls], _bumpEnd[cls]);
  void* p = _bump[cls];
  _bump[cls] += bytes;
  TAV_UNPOISON(p, bytes);
  return p;
}

// Free blocks are poisoned: only their first word is read and written here.
TAV_NO_ASAN void* TavMemory::Reordered(void* list) {
  // A sample of the first blocks decides: more than one in eight of them
  // over 256 bytes from the one before means scattered.
  constexpr std::size_t Sample = 256;
  std::size_t seen = 0, jumps = 0;
  const char* prev = static_cast<const char*>(list);
  for (void* p = list; p != nullptr && seen < Sample; p = *static_cast<void**>(p), ++seen) {
    const char* q = static_cast<const char*>(p);
    jumps += std::size_t(q - prev + 256) > 512;
    prev = q;
  }
  return seen >= 64 && jumps * 8 > seen ? AddressOrder(list) : list;
}

TAV_NO_ASAN void* TavMemory::AddressOrder(void* list) {
  // Sort the blocks by chunk first, each chunk collecting its own, then each
  // chunk's through a bitmap of its 8-byte units.
  TavChunkHeader* touched = nullptr;
  for (void* p = list; p != nullptr;) {
    void* next = *static_cast<void**>(p);
    TavChunkHeader* h = ChunkOf(p);
    if (h->sorting == nullptr) {
      h->next = touched;
      touched = h;
    }
    *static_cast<void**>(p) = h->sorting;
    h->sorting = p;
    p = next;
  }
  constexpr std::size_t Words = TavChunkAlign / 8 / 64;
  std::uint64_t bits[Words];
  void* out = nullptr;
  while (touched != nullptr) {
    TavChunkHeader* h = touched;
    touched = h->next;
    h->next = nullptr;
    std::memset(bits, 0, sizeof(bits));
    for (void* p = h->sorting; p != nullptr; p = *static_cast<void**>(p)) {
      const std::size_t unit = (reinterpret_cast<std::uintptr_t>(p) & (TavChunkAlign - 1)) >> 3;
      bits[unit >> 6] |= std::uint64_t(1) << (unit & 63);
    }
    h->sorting = nullptr;
    char* base = reinterpret_cast<char*>(h);
    for (std::size_t w = Words; w-- > 0;) {
      for (std::uint64_t b = bits[w]; b != 0;) {
        const unsigned top = 63u - (unsigned)__builtin_clzll(b);
        b &= ~(std::uint64_t(1) << top);
        void* p = base + ((w * 64 + top) << 3);
        *static_cast<void**>(p) = out;
        out = p;
      }
    }
  }
  return out;
}

void* TavMemory::allocLarger(std::size_t bytes) {
  if (bytes <= SlabLimit) {
    const std::size_t cls = ClassOf(bytes);
    void* p = allocClass(cls);
    _liveBytes += _size[cls];
    return p;
  }
  return allocLarge(bytes);
}

void* TavMemory::allocLarge(std::size_t bytes) {
  if (bytes > (std::size_t(1) << 60)) throw std::bad_alloc();
  const std::size_t page = pageBytes();
  const std::size_t total = roundUp(bytes + TavChunkHeaderSize, page);
  std::size_t extent = roundUp(total, TavChunkAlign);
  TavChunkHeader* h;
  std::size_t own = 0;
  std::size_t reserved = total;
  if (extent <= RegionBytes) {
    const std::size_t k = extent / TavChunkAlign;
    if ((h = _spare[k]) != nullptr) {
      _spare[k] = h->next;
      reserved = total - page;  // its header page stayed
    } else {
      h = reinterpret_cast<TavChunkHeader*>(takeSpace(extent));
    }
  } else {
    Span s = mapSpan(total, TavChunkAlign);
    if (s.base == nullptr) throw std::bad_alloc();
    if (!TavChunkOwners::Cover(s.base, s.bytes)) {
      munmap(s.base, s.bytes);
      throw std::bad_alloc();
    }
    registerRoot(s.base, s.bytes);
    h = reinterpret_cast<TavChunkHeader*>(s.base);
    extent = s.bytes;
    own = 1;
  }
  h->env = _env;
  TavChunkOwners::Set(reinterpret_cast<char*>(h), extent, _env);
  h->prev = nullptr;
  h->next = _large;
  h->bytes = total;
  h->extent = extent;
  h->ownMapping = own;
  std::memset(h->pageClass, 0, sizeof(h->pageClass));
  if (_large) _large->prev = h;
  _large = h;
  _reservedBytes += reserved;
  _liveBytes += total - TavChunkHeaderSize;
  char* payload = reinterpret_cast<char*>(h) + TavChunkHeaderSize;
  TAV_POISON(payload, total - TavChunkHeaderSize);
  TAV_UNPOISON(payload, bytes);
  return payload;
}

void TavMemory::free(void* p) {
  if (p == nullptr) return;
  TavChunkHeader* h = ChunkOf(p);
  if (const std::size_t cls = h->pageClass[(reinterpret_cast<std::uintptr_t>(p) & (TavChunkAlign - 1)) / TavPageBytes]) {
    const std::size_t bytes = _size[cls];
    *static_cast<void**>(p) = _returned[cls];
    _returned[cls] = p;
    TAV_POISON(p, bytes);
    _liveBytes -= bytes;
    return;
  }
  freeLarge(h);
}

void TavMemory::freeLarge(TavChunkHeader* h) {
  if (h->prev) h->prev->next = h->next;
  else _large = h->next;
  if (h->next) h->next->prev = h->prev;
  _liveBytes -= h->bytes - TavChunkHeaderSize;
  TavChunkOwners::Set(reinterpret_cast<char*>(h), h->extent, nullptr);
  if (h->ownMapping) {
    _reservedBytes -= h->bytes;
    unregisterRoot(h, h->extent);
    quarantinePut(reinterpret_cast<char*>(h), h->extent);
    return;
  }
  // A chunk carved from a region waits, header page only, for a request of
  // the same extent; its header reads as dead meanwhile.
  const std::size_t page = pageBytes();
  char* base = reinterpret_cast<char*>(h);
  TAV_POISON(base + TavChunkHeaderSize, h->bytes - TavChunkHeaderSize);
  if (h->bytes > page) madvise(base + page, h->bytes - page, MADV_DONTNEED);
  _reservedBytes -= h->bytes - page;
  const std::size_t k = h->extent / TavChunkAlign;
  h->env = nullptr;
  h->prev = nullptr;
  h->next = _spare[k];
  _spare[k] = h;
}

void TavMemory::releaseAll() {
  while (_large) {
    TavChunkHeader* h = _large;
    _large = h->next;
    if (h->ownMapping) {
      TavChunkOwners::Set(reinterpret_cast<char*>(h), h->extent, nullptr);
      unregisterRoot(h, h->extent);
      quarantinePut(reinterpret_cast<char*>(h), h->extent);
    }
  }
  for (const TavMemorySpan& s : _regions) {
    TavChunkOwners::Set(s.base, s.bytes, nullptr);
    unregisterRoot(s.base, s.bytes);
    quarantinePut(s.base, s.bytes);
  }
  _regions.clear();
  _regionNext = _regionEnd = nullptr;
  _nextRegionBytes = FirstRegionBytes;
  std::memset(_free, 0, sizeof(_free));
  std::memset(_returned, 0, sizeof(_returned));
  std::memset(_taken, 0, sizeof(_taken));
  std::memset(_bump, 0, sizeof(_bump));
  std::memset(_bumpEnd, 0, sizeof(_bumpEnd));
  std::memset(_spare, 0, sizeof(_spare));
  _shared = nullptr;
  _sharedPage = TavChunkPages;
  _liveBytes = 0;
  _reservedBytes = 0;
}

void* TavFixedSizeAllocatorI::refill(TavMemory* memory) {
  if (_returned != nullptr) {
    _free = TavMemory::Reordered(_returned);
    _returned = nullptr;
    return allocateBlock(memory);
  }
  // These pages have no size class of the memory: their blocks never go to free().
  char* end = nullptr;
  char* base = memory->takeSlab(_size, TavFixedPageClass, _taken, end);
  const std::size_t n = std::size_t(end - base) / _size;
  // Blocks 1..n-1 go on the free list in address order; block 0 is handed out now.
  TAV_UNPOISON(base, n * _size);
  void* head = _free;
  for (std::size_t i = n - 1; i >= 1; --i) {
    void* b = base + i * _size;
    *static_cast<void**>(b) = head;
    head = b;
  }
  _free = head;
  for (std::size_t i = 1; i < n; ++i) TAV_POISON(base + i * _size, _size);
  return base;
}

void TavThrowEnded() { throw TavWrongUsage("object of an ended Environment", 0); }
