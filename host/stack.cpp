// Stack segments for deep calls: the thread's stack limit, the segments
// (mapped with a guard page, two kept per thread for reuse) and the context
// switches, annotated for AddressSanitizer.
#include "stack.h"

#include <pthread.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <exception>
#include <new>

#include "memory.h"  // TAV_ASAN

#ifdef TAV_ASAN
#include <sanitizer/common_interface_defs.h>
#endif

namespace tav_stack {
namespace {

// What must stay free below the limit: the frames of one level of a walk
// plus whatever a leaf does (an algorithm's getValue, stream formatting).
// Instrumented frames are several times larger.
#ifdef TAV_ASAN
constexpr std::size_t Margin = std::size_t(1) << 20;
constexpr std::size_t StackBytes = std::size_t(4) << 20;
#else
constexpr std::size_t Margin = std::size_t(256) << 10;
constexpr std::size_t StackBytes = std::size_t(2) << 20;
#endif
// Segments start on a huge-page boundary: a walk down a million levels then
// takes a few page faults per segment instead of hundreds.
constexpr std::size_t HugePage = std::size_t(2) << 20;
constexpr int CachedSegments = 2;

std::size_t pageBytes() {
  static const std::size_t bytes = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return bytes;
}

/// The limit of the calling thread's own stack.
std::uintptr_t measureLimit() {
  pthread_attr_t attr;
  void* bottom = nullptr;
  std::size_t size = 0;
  bool known = false;
  if (pthread_getattr_np(pthread_self(), &attr) == 0) {
    known = pthread_attr_getstack(&attr, &bottom, &size) == 0 && size > 0;
    pthread_attr_destroy(&attr);
  }
  const std::uintptr_t sp = here();
  const std::uintptr_t low = reinterpret_cast<std::uintptr_t>(bottom);
  if (!known || sp < low || sp >= low + size) {
    // Unknown, or not running on the thread's stack (a coroutine's, say):
    // assume little is left, so deep walks move to segments early.
    return sp > Margin ? sp - Margin : 0;
  }
  // A small thread stack keeps three quarters of itself for direct calls.
  const std::size_t margin = Margin < size / 4 ? Margin : size / 4;
  return low + margin;
}

/// StackBytes of stack with an inaccessible guard page right below it, so
/// that running off a segment faults instead of writing over memory.
void unmapSegment(char* stack) { munmap(stack - pageBytes(), StackBytes + pageBytes()); }

char* mapSegment() {
  const std::size_t page = pageBytes();
  const std::size_t reserve = StackBytes + HugePage + page;
  void* m = mmap(nullptr, reserve, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (m == MAP_FAILED) throw std::bad_alloc();
  char* const base = static_cast<char*>(m);
  const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(base) + page;
  char* const stack = reinterpret_cast<char*>((first + HugePage - 1) & ~(std::uintptr_t)(HugePage - 1));
  // Give back what the alignment did not need.
  if (stack - page > base) munmap(base, (std::size_t)(stack - page - base));
  char* const end = stack + StackBytes;
  if (end < base + reserve) munmap(end, (std::size_t)(base + reserve - end));
  if (mprotect(stack - page, page, PROT_NONE) != 0) {
    unmapSegment(stack);
    throw std::bad_alloc();
  }
#ifdef MADV_HUGEPAGE
  madvise(stack, StackBytes, MADV_HUGEPAGE);
#endif
  return stack;
}

/// Segments kept for the next deep calls of this thread.
struct SegmentCache {
  char* stacks[CachedSegments] = {};
  int count = 0;
  ~SegmentCache() {
    for (int i = 0; i < count; ++i) unmapSegment(stacks[i]);
  }
};
thread_local SegmentCache cache;

char* acquire() {
  char* stack = cache.count > 0 ? cache.stacks[--cache.count] : mapSegment();
  // Frames left by an earlier job never returned, and shadow memory may
  // describe whatever was mapped here before: start clean.
  TAV_UNPOISON(stack, StackBytes);
  return stack;
}

void giveBack(char* stack) {
  if (cache.count < CachedSegments) cache.stacks[cache.count++] = stack;
  else unmapSegment(stack);
}

/// One call on a segment: what to run, where to return, what it threw.
struct Job {
  void (*fn)(void*);
  void* arg;
  char* stack;
  std::size_t stackBytes;
  ucontext_t caller;
  ucontext_t callee;
  std::exception_ptr error;
#ifdef TAV_ASAN
  void* fakeStack = nullptr;
  const void* callerBottom = nullptr;
  std::size_t callerBytes = 0;
#endif
};

// makecontext passes only int arguments: the job goes through here.
thread_local Job* starting = nullptr;

void enter() {
  Job* job = starting;
#ifdef TAV_ASAN
  __sanitizer_finish_switch_fiber(nullptr, &job->callerBottom, &job->callerBytes);
#endif
  // Nothing may unwind past this frame: it has no caller to return to.
  try {
    job->fn(job->arg);
  } catch (...) {
    job->error = std::current_exception();
  }
#ifdef TAV_ASAN
  // This segment's frames are finished: no fake stack to keep.
  __sanitizer_start_switch_fiber(nullptr, job->callerBottom, job->callerBytes);
#endif
  setcontext(&job->caller);
  std::abort();  // the caller's context is gone: nothing to return to
}

/// Runs the job on its segment; false when the switch could not be made.
/// getcontext returns twice (here, and again when the job is done), so the
/// function keeps its state in the job and in one volatile flag.
__attribute__((noinline)) bool runJob(Job* job) {
  if (getcontext(&job->callee) != 0) return false;
  job->callee.uc_stack.ss_sp = job->stack;
  job->callee.uc_stack.ss_size = job->stackBytes;
  job->callee.uc_link = nullptr;
  makecontext(&job->callee, enter, 0);
  volatile bool entered = false;
  if (getcontext(&job->caller) != 0) return false;
  if (!entered) {
    entered = true;
    starting = job;
#ifdef TAV_ASAN
    __sanitizer_start_switch_fiber(&job->fakeStack, job->stack, job->stackBytes);
#endif
    setcontext(&job->callee);  // returns only on failure
#ifdef TAV_ASAN
    __sanitizer_finish_switch_fiber(job->fakeStack, nullptr, nullptr);
#endif
    return false;
  }
  // Back from enter(), on this thread's own stack again.
#ifdef TAV_ASAN
  __sanitizer_finish_switch_fiber(job->fakeStack, nullptr, nullptr);
#endif
  return true;
}

}  // namespace

bool hasRoom() {
  if (limit == ~std::uintptr_t(0)) limit = measureLimit();
  return here() > limit;
}

void runOnSegment(void (*fn)(void*), void* arg) {
  char* const stack = acquire();
  Job job;
  job.fn = fn;
  job.arg = arg;
  job.stack = stack;
  job.stackBytes = StackBytes;
  const std::uintptr_t saved = limit;
  limit = reinterpret_cast<std::uintptr_t>(stack) + Margin;
  const bool ran = runJob(&job);
  limit = saved;
  giveBack(stack);
  if (!ran) throw std::bad_alloc();
  if (job.error) std::rethrow_exception(job.error);
}

}  // namespace tav_stack
