#include "Address.h"

#include <initializer_list>

namespace hxpy {
namespace {

// False: out of range.
bool Read(PyObject* object, std::uint32_t& number) {
  int overflow = 0;
  const long long value = PyLong_AsLongLongAndOverflow(object, &overflow);
  if (value == -1 && overflow == 0 && PyErr_Occurred() != nullptr) ThrowSet();
  number = static_cast<std::uint32_t>(value);
  return overflow == 0 && value >= 0 && value <= UINT32_MAX;
}

bool ReadAll(PyObject* tuple, std::initializer_list<std::uint32_t*> numbers) {
  bool isPossible = true;
  Py_ssize_t at = 0;
  for (std::uint32_t* number : numbers)
    isPossible = Read(PyTuple_GET_ITEM(tuple, at++), *number) && isPossible;
  return isPossible;
}

}  // namespace

Address::Address(PyObject* object) {
  if (PyTuple_Check(object) && PyTuple_GET_SIZE(object) == 3) {
    kind = Kind::kTile;
    isPossible = ReadAll(object, {&tile.z, &tile.x, &tile.y});
  } else if (PyTuple_Check(object) && PyTuple_GET_SIZE(object) == 2) {
    kind = Kind::kCell;
    isPossible = ReadAll(object, {&cell.row, &cell.col});
  } else if (PyUnicode_Check(object)) {
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(object, &size);
    if (text == nullptr) {  // it has lone surrogates, as the names of files may
      PyErr_Clear();
      owner = Own(PyUnicode_AsEncodedString(object, "utf-8", "surrogatepass"));
      text = PyBytes_AS_STRING(owner.ptr());
      size = PyBytes_GET_SIZE(owner.ptr());
    }
    name = {text, static_cast<std::size_t>(size)};
  } else {
    PyErr_Format(PyExc_TypeError, "a key is (z, x, y), (row, col) or a str, not %.100s",
                 Py_TYPE(object)->tp_name);
    ThrowSet();
  }
}

}  // namespace hxpy
