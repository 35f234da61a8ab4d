// The line between the library's threads and the Python interpreter.
//
// Library threads (a link's queue, the pool) reach Python in two ways only: a callback that
// calls a Python callable, and the release of the last reference to one. Both go through
// the gate: enter() before taking the GIL, leave() after giving it back. When the
// interpreter is about to finish (the module's atexit hook, close()), the gate shuts and
// waits for those already inside; after that no library thread takes the GIL again, so
// nothing touches an interpreter that is being torn down. A callable whose last reference
// goes after the gate shut is leaked on purpose: the process is ending.
#pragma once

#include <pybind11/pybind11.h>

#include <condition_variable>
#include <memory>
#include <mutex>

namespace quelt {

class Gate {
 public:
  static Gate& instance() {
    static auto* gate = new Gate;  // never destroyed: library threads may outlive main()
    return *gate;
  }
  bool enter() {
    std::lock_guard lock(mutex_);
    if (shut_) return false;
    ++inside_;
    return true;
  }
  void leave() {
    std::lock_guard lock(mutex_);
    if (--inside_ == 0) drained_.notify_all();
  }
  // Called with the GIL held; gives it up while the callbacks inside finish.
  void shut() {
    pybind11::gil_scoped_release released;
    std::unique_lock lock(mutex_);
    shut_ = true;
    drained_.wait(lock, [&] { return inside_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable drained_;
  bool shut_ = false;  // guarded by mutex_
  int inside_ = 0;     // guarded by mutex_
};

// A Python callable that library threads may hold, call and let go of.
class Callable {
 public:
  explicit Callable(pybind11::object fn) : fn_(fn.release().ptr()) {}
  Callable(const Callable&) = delete;
  Callable& operator=(const Callable&) = delete;
  ~Callable() {
    if (!Gate::instance().enter()) return;  // the interpreter is ending: leak it
    {
      pybind11::gil_scoped_acquire gil;
      Py_DECREF(fn_);
    }
    Gate::instance().leave();
  }

  // Calls it with the GIL held (taken here: the caller holds no library lock). An exception
  // it raises is reported as unraisable, as Python does for callbacks nobody can catch.
  template <class... Args>
  void operator()(Args&&... args) const {
    if (!Gate::instance().enter()) return;
    {
      pybind11::gil_scoped_acquire gil;
      const pybind11::handle fn(fn_);
      try {
        fn(std::forward<Args>(args)...);
      } catch (pybind11::error_already_set& e) {
        e.discard_as_unraisable(pybind11::reinterpret_borrow<pybind11::object>(fn));
      }
    }
    Gate::instance().leave();
  }

 private:
  PyObject* fn_;
};

}  // namespace quelt
