// Environment memory: chunks, size classes and the fixed-size free list.
#include "memory.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

TavMemory::TavMemory(TavEnvI* env)
    : _env(env), _chunks(nullptr), _failCountdown(0), _liveBytes(0), _reservedBytes(0) {
  std::memset(_free, 0, sizeof(_free));
  std::memset(_bump, 0, sizeof(_bump));
  std::memset(_bumpEnd, 0, sizeof(_bumpEnd));
}

TavMemory::~TavMemory() { releaseAll(); }

void* TavMemory::newChunk(std::size_t bytes, std::size_t slotBytes) {
  std::size_t total = (bytes + TavChunkHeaderSize + TavChunkAlign - 1) & ~(TavChunkAlign - 1);
  std::size_t mapped = 0;
  void* raw = rawChunk(total, slotBytes, mapped);
  if (raw == nullptr) throw std::bad_alloc();
  TavChunkHeader* h = static_cast<TavChunkHeader*>(raw);
  h->mapped = mapped;
  h->env = _env;
  h->prev = nullptr;
  h->next = _chunks;
  h->bytes = total;
  h->slotBytes = slotBytes;
  if (_chunks) _chunks->prev = h;
  _chunks = h;
  _reservedBytes += total;
  char* payload = static_cast<char*>(raw) + TavChunkHeaderSize;
  TAV_POISON(payload, total - TavChunkHeaderSize);
  return payload;
}

void* TavMemory::rawChunk(std::size_t total, std::size_t slotBytes, std::size_t& mapped) {
#ifndef TAV_ASAN  // the leak checker does not look inside mapped regions
  // Only chunks that live until the environment ends: large ones are freed one by one.
  if (slotBytes != 0 && total == TavChunkAlign && _reservedBytes >= RegionThreshold && (_regionNext != _regionEnd || newRegion())) {
    void* p = _regionNext;
    _regionNext += TavChunkAlign;
    mapped = 1;
    return p;
  }
#endif
  (void)slotBytes;
  mapped = 0;
  return std::aligned_alloc(TavChunkAlign, total);
}

bool TavMemory::newRegion() {
  // Map twice the size and keep the aligned middle.
  const std::size_t len = 2 * RegionBytes;
  void* raw = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return false;
  const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = (start + RegionBytes - 1) & ~(std::uintptr_t)(RegionBytes - 1);
  char* region = reinterpret_cast<char*>(aligned);
  if (aligned > start) munmap(raw, aligned - start);
  const std::size_t tail = start + len - (aligned + RegionBytes);
  if (tail) munmap(region + RegionBytes, tail);
#ifdef MADV_HUGEPAGE
  madvise(region, RegionBytes, MADV_HUGEPAGE);
#endif
  try {
    _regions.push_back(region);
  } catch (...) {
    munmap(region, RegionBytes);
    return false;
  }
  _regionNext = region;
  _regionEnd = region + RegionBytes;
  return true;
}

void* TavMemory::allocSmall(std::size_t cls) {
  std::size_t bytes = cls * 8;
  if (void* p = _free[cls]) {
    TAV_UNPOISON(p, bytes);
    _free[cls] = *static_cast<void**>(p);
    return p;
  }
  // Each chunk serves one size class, so a pointer's size is in its chunk.
  if (_bump[cls] == nullptr || std::size_t(_bumpEnd[cls] - _bump[cls]) < bytes) {
    _bump[cls] = static_cast<char*>(newChunk(TavChunkAlign - TavChunkHeaderSize, bytes));
    _bumpEnd[cls] = _bump[cls] + (TavChunkAlign - TavChunkHeaderSize);
  }
  void* p = _bump[cls];
  _bump[cls] += bytes;
  TAV_UNPOISON(p, bytes);
  return p;
}

void* TavMemory::alloc(std::size_t bytes) {
  chargeAllocation();
  if (bytes == 0) bytes = 8;
  if (bytes <= SmallLimit) {
    std::size_t cls = (bytes + 7) / 8;
    void* p = allocSmall(cls);
    _liveBytes += cls * 8;
    return p;
  }
  void* p = newChunk(bytes);
  TAV_UNPOISON(p, bytes);
  _liveBytes += ChunkOf(p)->bytes - TavChunkHeaderSize;
  return p;
}

void TavMemory::free(void* p) {
  if (p == nullptr) return;
  TavChunkHeader* h = ChunkOf(p);
  if (std::size_t bytes = h->slotBytes) {
    std::size_t cls = bytes / 8;
    *static_cast<void**>(p) = _free[cls];
    _free[cls] = p;
    TAV_POISON(p, bytes);
    _liveBytes -= bytes;
    return;
  }
  _liveBytes -= h->bytes - TavChunkHeaderSize;
  freeLarge(p);
}

void TavMemory::freeLarge(void* p) {
  TavChunkHeader* h = reinterpret_cast<TavChunkHeader*>(static_cast<char*>(p) - TavChunkHeaderSize);
  if (h->prev) h->prev->next = h->next;
  else _chunks = h->next;
  if (h->next) h->next->prev = h->prev;
  _reservedBytes -= h->bytes;
  TAV_UNPOISON(h, h->bytes);
  std::free(h);
}

void TavMemory::releaseAll() {
  while (_chunks) {
    TavChunkHeader* next = _chunks->next;
    TAV_UNPOISON(_chunks, _chunks->bytes);
    if (!_chunks->mapped) std::free(_chunks);
    _chunks = next;
  }
  for (void* region : _regions) munmap(region, RegionBytes);
  _regions.clear();
  _regionNext = _regionEnd = nullptr;
  std::memset(_free, 0, sizeof(_free));
  std::memset(_bump, 0, sizeof(_bump));
  std::memset(_bumpEnd, 0, sizeof(_bumpEnd));
  _liveBytes = 0;
  _reservedBytes = 0;
}

void* TavFixedSizeAllocatorI::refill(TavMemory* memory) {
  const std::size_t payload = TavChunkAlign - TavChunkHeaderSize;
  char* base = static_cast<char*>(memory->newChunk(payload, _size));
  std::size_t n = payload / _size;
  // Blocks 1..n-1 go on the free list; block 0 is handed out now.
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
