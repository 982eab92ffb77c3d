#include "Errors.h"

#include "Types.h"

namespace hxpy {
namespace {

py::object ToPython(const hx::Error& error) {
  return Get().makeError(DecodePath(error.what()), error.code(),
                         static_cast<std::uint32_t>(error.cause()), error.system_error(),
                         py::bytes(error.path()));
}

}  // namespace

void Throw(const hx::Status& status) {
  if (status.cause() == hx::Cause::kNoMemory) throw std::bad_alloc();
  throw hx::Error(Zarn::ZrLastError());
}

void Throw(unsigned int code, hx::Cause cause, const std::string& path, const char* action) {
  Zarn::ZrError error;
  error.result = code;
  error.cause = cause;
  error.path = path;
  error.action = action;
  throw hx::Error(error);
}

void ThrowForked(const std::string& path) {
  const py::object error =
      Get().forkError("this object is the parent process's; open the file in the child",
                      unsigned{Zarn::ZrResult::kNotOpen},
                      static_cast<std::uint32_t>(hx::Cause::kNotOpen), 0, DecodePath(path.c_str()));
  PyErr_SetObject(error.get_type().ptr(), error.ptr());
  ThrowSet();
}

void ThrowMissing(PyObject* key) {
  const py::object error = Own(PyObject_CallFunctionObjArgs(PyExc_KeyError, key, nullptr));
  PyErr_SetObject(PyExc_KeyError, error.ptr());
  ThrowSet();
}

void Translate(std::exception_ptr exception) {
  try {
    std::rethrow_exception(exception);
  } catch (const hx::Error& error) {
    const py::object made = ToPython(error);
    PyErr_SetObject(made.get_type().ptr(), made.ptr());
  }
}

}  // namespace hxpy
