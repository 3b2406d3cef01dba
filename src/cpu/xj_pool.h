// Fork-join over an index range: one private set of workers per calling thread.
#pragma once
#include <cstddef>
#include <functional>

namespace xj::pool {

// The process's thread count, computed once: XJ_CORE_THREADS, or XJ_PASTE_THREADS
// when that is unset or empty; 4 when neither is set; at least 1; at most the
// hardware concurrency.
int threads();

// Always true: the pool exists on every build.
bool available();

// How many chunks parallelRange cuts n items into, at least minPerPart a chunk.
int parts(size_t n, size_t minPerPart);

// Runs body over [0, n) in parts(n, minPerPart) equal chunks of ceil(n / p),
// chunk i on worker i and chunk 0 on the caller; returns when all are done.
// A call made inside the caller's own chunk runs serially as body(0, n).
void parallelRange(size_t n, size_t minPerPart, const std::function<void(size_t, size_t)>& body);

}  // namespace xj::pool
