#pragma once

#include <pybind11/pybind11.h>

#include <new>
#include <utility>

namespace hxpy {

namespace py = pybind11;

/// Other threads of Python run while it lives. Nothing of Python is touched meanwhile, but within
/// `Locked`.
class Unlocked {
 public:
  Unlocked() : m_thread(PyEval_SaveThread()) {}
  ~Unlocked() { PyEval_RestoreThread(m_thread); }
  Unlocked(const Unlocked&) = delete;
  Unlocked& operator=(const Unlocked&) = delete;

  /// `call()` with Python's lock.
  template <typename Call>
  auto Locked(Call call) {
    PyEval_RestoreThread(m_thread);
    struct Again {
      ~Again() { PyEval_SaveThread(); }
    } const again;
    return call();
  }

 private:
  PyThreadState* const m_thread;
};

/// `call()` while other threads of Python run.
template <typename Call>
auto WithoutLock(Call call) {
  const Unlocked unlocked;
  return call();
}

/// Ends a call whose exception of Python is set.
[[noreturn]] inline void ThrowSet() { throw py::error_already_set(); }

/// An object that somebody has made, or the end of the call.
inline py::object Own(PyObject* made) {
  if (made == nullptr) ThrowSet();
  return py::reinterpret_steal<py::object>(made);
}

/// The bytes of an object that has a buffer, held for as long as it lives.
class Buffer {
 public:
  explicit Buffer(PyObject* object, int flags = PyBUF_SIMPLE) {
    if (PyObject_GetBuffer(object, &m_view, flags) != 0) ThrowSet();
  }
  Buffer(Buffer&& other) noexcept : m_view(std::exchange(other.m_view, Py_buffer{})) {}
  ~Buffer() { PyBuffer_Release(&m_view); }
  Buffer& operator=(Buffer&&) = delete;

  void* Data() const { return m_view.buf; }
  std::size_t Size() const { return static_cast<std::size_t>(m_view.len); }

 private:
  Py_buffer m_view{};
};

}  // namespace hxpy
