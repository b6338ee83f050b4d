// Preloaded into an interpreter whose allocators are all malloc's (PYTHONMALLOC=malloc): counts the
// blocks that live, and lets chosen allocations of one call fail, those of C++ among them.

#include <atomic>
#include <cerrno>
#include <cstddef>

extern "C" {

struct PyObject;
PyObject* PyObject_CallNoArgs(PyObject* callable);
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {

std::atomic<long> live{0};
constinit thread_local long until_first = 0;  // allocations of this thread; 0: none fails
constinit thread_local long failing = 0;      // how many fail from there on

bool fails() {
  if (until_first == 0) return false;
  if (until_first > 1) {
    --until_first;
    return false;
  }
  if (failing == 0) return false;
  --failing;
  errno = ENOMEM;
  return true;
}

void* counted(void* block) {
  if (block != nullptr) live.fetch_add(1, std::memory_order_relaxed);
  return block;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) { return fails() ? nullptr : counted(__libc_malloc(size)); }

void* calloc(std::size_t count, std::size_t size) {
  return fails() ? nullptr : counted(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size) {
  if (fails()) return nullptr;
  void* const moved = __libc_realloc(block, size);
  return block == nullptr ? counted(moved) : moved;
}

void free(void* block) {
  if (block != nullptr) live.fetch_sub(1, std::memory_order_relaxed);
  __libc_free(block);
}

long live_blocks() { return live.load(); }

/// Calls `callable` with the allocations from the `first`th on failing, `count` of them.
PyObject* call_without_memory(PyObject* callable, long first, long count) {
  until_first = first;
  failing = count;
  PyObject* const result = PyObject_CallNoArgs(callable);
  if (failing == count) failing = -1;  // the call was over before
  until_first = 0;
  return result;
}

/// Whether an allocation of the last such call failed.
int any_failed() { return failing >= 0; }
}
