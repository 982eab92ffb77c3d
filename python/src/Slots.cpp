// What Python does with single tiles most often: t[key], key in t, t[key] = data, del t[key],
// len(t) and t.get(key).

#include "Errors.h"
#include "Lookup.h"
#include "TilesClass.h"
#include "Types.h"

namespace hxpy {
namespace {

Store& StoreOf(PyObject* self) { return *Self<Tiles>(self).store; }

PyObject* Subscript(PyObject* self, PyObject* key) {
  return Guarded<PyObject*>(nullptr, [&]() -> PyObject* {
    PyObject* const bytes = LookUpBytes(StoreOf(self), key, std::nullopt);
    if (bytes == nullptr) ThrowMissing(key);
    return bytes;
  });
}

void Put(Store& store, PyObject* key, PyObject* data) {
  const Address address(key);
  const Buffer buffer(data);
  const Store::Use use(store);
  const Store::Use::Place place = use.FindToStore(address);
  const hx::Status status = WithoutLock(
      [&] { return place.container->try_put(place.key, hx::Bytes(buffer.Data(), buffer.Size())); });
  if (!status) Throw(status);
}

void Erase(Store& store, PyObject* key) {
  const Address address(key);
  const Store::Use use(store);
  const auto place = use.Find(address);
  if (!place || !IfPossible([&] { return use.Erase(*place, std::nullopt); })) ThrowMissing(key);
}

// Without data, it is `del`.
int Assign(PyObject* self, PyObject* key, PyObject* data) {
  return Guarded<int>(-1, [&] {
    data != nullptr ? Put(StoreOf(self), key, data) : Erase(StoreOf(self), key);
    return 0;
  });
}

int Contains(PyObject* self, PyObject* key) {
  return Guarded<int>(-1, [&] {
    const Address address(key);
    const Store::Use use(StoreOf(self));
    const auto place = use.Find(address);
    return place && IfPossible([&] { return place->container->contains(place->key); }) ? 1 : 0;
  });
}

Py_ssize_t Length(PyObject* self) {
  return Guarded<Py_ssize_t>(-1, [&] {
    const Store::Use use(StoreOf(self));
    return WithoutLock([&] {
      std::uint64_t size = 0;
      for (const Archive::Layer& layer : use->layers)
        size += layer.container->size();
      return static_cast<Py_ssize_t>(size);
    });
  });
}

// The version is the only argument that has a name.
MaybeStamp VersionOf(PyObject* const* values, PyObject* names) {
  MaybeStamp stamp;
  for (Py_ssize_t i = 0; names != nullptr && i < PyTuple_GET_SIZE(names); ++i) {
    PyObject* const name = PyTuple_GET_ITEM(names, i);
    if (PyUnicode_CompareWithASCIIString(name, "version") != 0) {
      PyErr_Format(PyExc_TypeError, "get() got an unexpected keyword argument '%U'", name);
      ThrowSet();
    }
    if (values[i] != Py_None) stamp = ToStamp(values[i]);
  }
  return stamp;
}

PyObject* GetOr(PyObject* self, PyObject* const* values, Py_ssize_t count, PyObject* names) {
  return Guarded<PyObject*>(nullptr, [&]() -> PyObject* {
    if (count < 1 || count > 2) throw py::type_error("get() takes a key and a default");
    const MaybeStamp stamp = VersionOf(values + count, names);
    PyObject* const bytes = LookUpBytes(StoreOf(self), values[0], stamp);
    if (bytes != nullptr) return bytes;
    PyObject* const other = count == 2 ? values[1] : Py_None;
    Py_INCREF(other);
    return other;
  });
}

PyMethodDef g_methods[] = {
    {"get", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(GetOr)),
     METH_FASTCALL | METH_KEYWORDS,
     "get($self, key, default=None, /, *, version=None)\n--\n\n"
     "The newest version of a tile, or the one of a stamp; the default if there is none."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

void SetSlots(PyHeapTypeObject* type) {
  type->ht_type.tp_methods = g_methods;
  type->as_mapping.mp_subscript = Subscript;
  type->as_mapping.mp_ass_subscript = Assign;
  type->as_mapping.mp_length = Length;
  type->as_sequence.sq_contains = Contains;
}

}  // namespace hxpy
