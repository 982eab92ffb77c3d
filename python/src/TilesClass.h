#pragma once

#include <memory>
#include <string>

#include "Python.h"
#include "Store.h"

namespace hxpy {

/// The class Tiles of the module.
struct Tiles {
  std::shared_ptr<Store> store;
  std::string mode;
};
using TilesClass = py::class_<Tiles>;

/// The object of C++ behind one of Python's, of that class. Throws TypeError if it was never made.
template <typename Class>
Class& Self(PyObject* object) {
  auto* const instance = reinterpret_cast<py::detail::instance*>(object);
  auto* const self = static_cast<Class*>(instance->simple_value_holder[0]);
  if (self == nullptr) throw py::type_error("this object was not made by hxcf.open");
  return *self;
}

/// The slots of the type by which Python finds, stores and removes single tiles. They are the
/// type's own: the calls of pybind11 take as long as a lookup.
void SetSlots(PyHeapTypeObject* type);
void SetIterator(PyHeapTypeObject* type);  ///< the slot by which it walks over its keys
void DefineSingle(TilesClass& tiles);      ///< what else is about one tile
void DefineBatch(TilesClass& tiles);       ///< put_many
void DefineWhole(TilesClass& tiles);       ///< what is about the whole file
void DefineWalks(py::module_& module, TilesClass& tiles);
void DefinePayload(py::module_& module);
void DefineOpen(py::module_& module);

}  // namespace hxpy
