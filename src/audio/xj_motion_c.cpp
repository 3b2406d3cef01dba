// The C surface of the motion model: no exception crosses it.
#include "audio/xj_motion_c.h"

#include <exception>

#include "audio/xj_motion.h"
#include "cpu/xj_pool.h"

namespace xj::motion {

std::string& lastError() {
  thread_local std::string text;
  return text;
}

}  // namespace xj::motion

namespace {

void clearErr() { xj::motion::lastError().clear(); }
void setErr(const char* literal) { xj::motion::lastError() = literal; }
void setErr(const char* name, const std::exception& e) {
  xj::motion::lastError() = std::string(name) + ": " + e.what();
}

}  // namespace

extern "C" {

XJ_API xj_motion* xj_motion_create(const char* motion_dir, int threads, const char* ep) {
  clearErr();
  if (!motion_dir) {
    setErr("xj_motion_create: NULL motion_dir");
    return nullptr;
  }
  try {
    return new xj_motion(motion_dir, threads < 1 ? xj::pool::threads() : threads, ep ? ep : "");
  } catch (const std::exception& e) {
    setErr("xj_motion_create", e);
    return nullptr;
  }
}

XJ_API void xj_motion_destroy(xj_motion* m) { delete m; }

XJ_API const char* xj_motion_last_error(void) { return xj::motion::lastError().c_str(); }

XJ_API int xj_motion_nt(const xj_motion* m) { return m ? m->nt : 0; }

XJ_API void xj_motion_reset(xj_motion* m, int start, int dir, int loop) {
  if (m) m->reset(start, dir, loop);
}

XJ_API void xj_motion_set_eager(xj_motion* m, int eager) {
  if (m) m->setEager(eager);
}

XJ_API int xj_motion_push(xj_motion* m, const float* samples, int count) {
  clearErr();
  if (!m || !samples || count < 0 || m->finished) {
    setErr("xj_motion_push: bad args / already finished");
    return 0;
  }
  try {
    m->push(samples, count);
  } catch (const std::exception& e) {
    setErr("xj_motion_push", e);
    return 0;
  }
  return 1;
}

XJ_API void xj_motion_finish(xj_motion* m) {
  clearErr();
  if (!m) return;
  try {
    m->finish();
  } catch (const std::exception& e) {
    setErr("xj_motion_finish", e);
  }
}

XJ_API int xj_motion_avail(xj_motion* m) {
  clearErr();
  if (!m) {
    setErr("xj_motion_avail: bad args");
    return 0;
  }
  try {
    return m->avail();
  } catch (const std::exception& e) {
    setErr("xj_motion_avail", e);
    return 0;
  }
}

XJ_API int xj_motion_pull(xj_motion* m, int* rows, float* xs, float* xd, int n) {
  clearErr();
  if (!m || !xs || !xd || n < 1) {
    setErr("xj_motion_pull: bad args");
    return 0;
  }
  try {
    return m->pull(rows, xs, xd, n);
  } catch (const std::exception& e) {
    setErr("xj_motion_pull", e);
    return 0;
  }
}

XJ_API int xj_motion_total(const xj_motion* m) { return (m && m->finished) ? m->total : -1; }

}  // extern "C"
