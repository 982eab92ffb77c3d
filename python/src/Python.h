#pragma once

#include <cxxabi.h>
#include <pybind11/pybind11.h>
#include <unistd.h>

#include <new>
#include <string>
#include <utility>

namespace hxpy {

namespace py = pybind11;

/// `call()`, which takes Python's lock or runs code of Python. When the interpreter ends, it ends
/// the other threads within such a call by an unwinding of their stacks. Nothing here could then
/// give back what it has of Python, so the thread stays where it is until the process has ended, as
/// it does under a later Python.
template <typename Call>
auto StayAtExit(Call call) {
  try {
    return call();
  } catch (const abi::__forced_unwind&) {
    for (;;)
      ::pause();
  }
}

/// Other threads of Python run while it lives. Nothing of Python is touched meanwhile, but within
/// `Locked`.
class Unlocked {
 public:
  Unlocked() : m_thread(PyEval_SaveThread()) {}
  ~Unlocked() { Restore(); }
  Unlocked(const Unlocked&) = delete;
  Unlocked& operator=(const Unlocked&) = delete;

  /// `call()` with Python's lock.
  template <typename Call>
  auto Locked(Call call) {
    Restore();
    struct Again {
      ~Again() { PyEval_SaveThread(); }
    } const again;
    return call();
  }

 private:
  void Restore() {
    StayAtExit([this] { PyEval_RestoreThread(m_thread); });
  }

  PyThreadState* const m_thread;
};

/// `call()` while other threads of Python run.
template <typename Call>
auto WithoutLock(Call call) {
  const Unlocked unlocked;
  return call();
}

/// Sets up a class whose objects only this module makes.
inline void SetNoConstructor(PyHeapTypeObject* type) {
  type->ht_type.tp_flags |= Py_TPFLAGS_DISALLOW_INSTANTIATION;
}

/// A class's refusal to be pickled, under all protocols.
inline py::object RefuseToPickle(const py::object& self, const py::args&) {
  throw py::type_error("cannot pickle '" + std::string(Py_TYPE(self.ptr())->tp_name) + "' object");
}

/// Ends a call whose exception of Python is set.
[[noreturn]] inline void ThrowSet() { throw py::error_already_set(); }

/// An object that somebody has made, or the end of the call.
inline py::object Own(PyObject* made) {
  if (made == nullptr) ThrowSet();
  return py::reinterpret_steal<py::object>(made);
}

/// A path, or a text with one, as Python's own modules give it.
inline py::object DecodePath(const char* text) { return Own(PyUnicode_DecodeFSDefault(text)); }

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
