#pragma once

#include <hx/tiles.h>

#include <string>
#include <string_view>
#include <vector>

#include "Python.h"

namespace hxpy {

/// Classes and functions of the module's Python files that are used here. They live as long as the
/// process.
struct Types {
  PyTypeObject *tile, *cell, *names, *grid, *zoomRange;
  PyTypeObject *version, *entry, *statistics, *finding, *check;
  py::handle makeError, forkError;
};
const Types& Get();

/// A named tuple of that class; it takes over the items.
template <typename... Items>
py::object MakeTuple(PyTypeObject* type, Items... items) {
  py::object tuple = Own(type->tp_alloc(type, sizeof...(items)));
  Py_ssize_t at = 0;
  (PyTuple_SET_ITEM(tuple.ptr(), at++, items.release().ptr()), ...);
  return tuple;
}

inline py::object ToPython(std::uint64_t number) {
  return Own(PyLong_FromUnsignedLongLong(number));
}
inline py::object ToPython(hx::Bytes bytes) {
  return Own(PyBytes_FromStringAndSize(bytes.text().data(), static_cast<Py_ssize_t>(bytes.size())));
}
/// A name may have lone surrogates.
py::object ToPython(std::string_view text);
py::object ToPython(const hx::Tile& tile);
py::object ToPython(const hx::Cell& cell);
py::object ToPython(const hx::Version& version);
py::object ToPython(const hx::Statistics& statistics);
py::object ToPython(const hx::Finding& finding, const std::string& path);
py::object ToPython(const std::vector<hx::Stamp>& stamps);

/// Throws UnicodeEncodeError for lone surrogates, unless `errors` is "surrogatepass".
std::string ToUtf8(const py::str& text, const char* errors = "strict");

/// Of a number that Python has given as a stamp. Throws ValueError if none can be so.
hx::Stamp ToStamp(PyObject* number);
/// The same of a size, or a position.
std::uint64_t ToSize(PyObject* number);
/// The same of a zoom, or a number of rows or columns.
std::uint32_t ToNumber(PyObject* number);

}  // namespace hxpy
