#pragma once

#include <hx/error.h>

#include <exception>

#include "Python.h"

namespace hxpy {

/// Throws what has just failed in this thread.
[[noreturn]] void Throw(const hx::Status& status);
/// Throws a failure of this module's own.
[[noreturn]] void Throw(unsigned int code, hx::Cause cause, const std::string& path,
                        const char* action);
/// Throws that the object is a parent process's.
[[noreturn]] void ThrowForked(const std::string& path);

/// Throws KeyError. A key may be a tuple, which Python would take for the error's arguments.
[[noreturn]] void ThrowMissing(PyObject* key);

/// Makes the exception of Python that fits the one of C++, for pybind11 and for Guarded.
void Translate(std::exception_ptr exception);

/// `call()`, for Python: an exception becomes Python's, and `failure` the answer.
template <typename Answer, typename Call>
Answer Guarded(Answer failure, Call call) noexcept {
  try {
    return call();
  } catch (py::error_already_set& error) {
    error.restore();
  } catch (const py::builtin_exception& error) {
    error.set_error();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (...) {
    try {
      Translate(std::current_exception());
    } catch (py::error_already_set& error) {
      error.restore();
    } catch (const std::exception& error) {
      PyErr_SetString(PyExc_RuntimeError, error.what());
    }
  }
  return failure;
}

}  // namespace hxpy
