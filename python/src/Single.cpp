// What is about one tile, beside what the slots do.

#include "Errors.h"
#include "Lookup.h"
#include "TilesClass.h"
#include "Types.h"

namespace hxpy {
namespace {

MaybeStamp ToMaybeStamp(const py::object& version) {
  return version.is_none() ? MaybeStamp() : ToStamp(version.ptr());
}

std::unique_ptr<hx::Payload> View(const Tiles& tiles, const py::object& key,
                                  const py::object& version) {
  auto payload = std::make_unique<hx::Payload>();
  if (!LookUp(*tiles.store, key.ptr(), ToMaybeStamp(version), *payload)) ThrowMissing(key.ptr());
  return payload;
}

std::size_t ReadInto(const Tiles& tiles, const py::object& key, const py::object& target) {
  const Address address(key.ptr());
  const Buffer buffer(target.ptr(), PyBUF_WRITABLE);
  const Store::Use use(*tiles.store);
  const auto place = use.Find(address);
  std::optional<std::size_t> size;
  if (place)
    size = IfPossible(
        [&] { return place->container->read(place->key, buffer.Data(), buffer.Size()); });
  if (!size) ThrowMissing(key.ptr());
  return *size;
}

void Put(const Tiles& tiles, const py::object& key, const py::object& data,
         const py::object& version, const py::object& capacity, const py::object& offset) {
  const Address address(key.ptr());
  const hx::PutOptions options = {ToStamp(version.ptr()), ToSize(capacity.ptr()),
                                  ToSize(offset.ptr())};
  const Buffer buffer(data.ptr());
  const Store::Use use(*tiles.store);
  const Store::Use::Place place = use.FindToStore(address);
  WithoutLock(
      [&] { place.container->put(place.key, hx::Bytes(buffer.Data(), buffer.Size()), options); });
}

bool Discard(const Tiles& tiles, const py::object& key, const py::object& version) {
  const Address address(key.ptr());
  const MaybeStamp stamp = ToMaybeStamp(version);
  const Store::Use use(*tiles.store);
  const auto place = use.Find(address);
  return place && IfPossible([&] { return use.Erase(*place, stamp); });
}

py::list Versions(const Tiles& tiles, const py::object& key) {
  const Address address(key.ptr());
  const Store::Use use(*tiles.store);
  const auto place = use.Find(address);
  py::list list;
  if (!place) return list;
  for (const hx::Version& version :
       IfPossible([&] { return place->container->versions(place->key); }))
    list.append(ToPython(version));
  return list;
}

// The bytes of a tile that this call has removed, and no other one.
py::object TryPop(const Tiles& tiles, const py::object& key) {
  PyObject* const bytes = LookUpBytes(*tiles.store, key.ptr(), std::nullopt);
  const auto own = py::reinterpret_steal<py::object>(bytes);
  return own && Discard(tiles, key, py::none()) ? own : py::object();
}

// As of a dict: with a default behind the key, that instead of KeyError.
py::object Pop(const Tiles& tiles, const py::object& key, const py::args& others) {
  if (others.size() > 1) throw py::type_error("pop() takes a key and a default");
  const py::object bytes = TryPop(tiles, key);
  if (!bytes && others.empty()) ThrowMissing(key.ptr());
  return bytes ? bytes : others[0];
}

py::object SetDefault(const Tiles& tiles, const py::object& key, const py::object& data) {
  PyObject* const bytes = LookUpBytes(*tiles.store, key.ptr(), std::nullopt);
  if (bytes != nullptr) return py::reinterpret_steal<py::object>(bytes);
  Put(tiles, key, data, py::int_(0), py::int_(0), py::int_(0));
  return data;
}

py::tuple PopItem(const py::object& self) {
  const Tiles& tiles = py::cast<const Tiles&>(self);
  for (const py::handle next : py::iter(self)) {
    const auto key = py::reinterpret_borrow<py::object>(next);
    if (const py::object bytes = TryPop(tiles, key)) return py::make_tuple(key, bytes);
  }
  throw py::key_error("there is no tile");
}

void Clear(const py::object& self) {
  const Tiles& tiles = py::cast<const Tiles&>(self);
  for (const py::handle key : py::iter(self)) {
    Discard(tiles, py::reinterpret_borrow<py::object>(key), py::none());
    if (PyErr_CheckSignals() != 0) ThrowSet();
  }
}

std::uint64_t DiscardOlder(const Tiles& tiles, const py::object& version) {
  const hx::Stamp stamp = ToStamp(version.ptr());
  const Store::Use use(*tiles.store);
  std::uint64_t removed = 0;
  for (const Archive::Layer& layer : use->layers) {
    removed += WithoutLock([&] { return layer.container->erase_older_than(stamp); });
    use.CheckSignals();
  }
  return removed;
}

}  // namespace

void DefinePayload(py::module_& module) {
  using hx::Payload;
  py::class_<Payload>(module, "Payload", py::buffer_protocol(),
                      py::custom_type_setup(SetNoConstructor), py::is_final(),
                      "The bytes of a tile as they were read, without a copy; has a buffer.")
      .def_buffer([](Payload& payload) {
        const auto size = static_cast<py::ssize_t>(payload.size());
        return py::buffer_info(const_cast<std::byte*>(payload.data()), 1, "B", 1, {size},
                               {py::ssize_t{1}}, true);
      })
      .def("__reduce_ex__", RefuseToPickle)
      .def("__len__", &Payload::size)
      .def("__bytes__", [](const Payload& payload) { return ToPython(hx::Bytes(payload)); })
      .def_property_readonly("filled", &Payload::filled, "How far the bytes are filled.")
      .def_property_readonly("complete", &Payload::complete, "Whether they are to the end.")
      .def_property_readonly("stamp", &Payload::stamp, "The version that was found.");
}

void DefineSingle(TilesClass& tiles) {
  const auto key = py::arg("key");
  tiles
      .def("view", View, key, py::pos_only(), py::kw_only(), py::arg("version") = py::none(),
           "As get, without a copy. Raises KeyError.")
      .def("readinto", ReadInto, key, py::arg("buffer"), py::pos_only(),
           "Reads a tile into a buffer, as far as that has room, and returns the size of the "
           "tile. Raises KeyError.")
      .def("put", Put, key, py::arg("data"), py::pos_only(), py::kw_only(), py::arg("version") = 0,
           py::arg("capacity") = 0, py::arg("offset") = 0,
           "Stores a tile, a version of one, or, with the size of the whole as the capacity, a "
           "piece of one.")
      .def("discard", Discard, key, py::pos_only(), py::kw_only(), py::arg("version") = py::none(),
           "Removes a tile, or one version of it. Returns whether it was there.")
      .def("versions", Versions, key, py::pos_only(),
           "The versions of a tile, the newest first; none if there is no tile.")
      .def("pop", Pop, key, "Removes a tile and returns its bytes.")
      .def("popitem", PopItem, "Removes a tile and returns its key and its bytes.")
      .def("setdefault", SetDefault, key, py::arg("data"), py::pos_only(),
           "The bytes of a tile; of none, stores these and returns them.")
      .def("clear", Clear, "Removes all tiles.")
      .def_static(
          "cell",
          [](const py::object& row, const py::object& col) {
            return ToPython(hx::Cell{ToNumber(row.ptr()), ToNumber(col.ptr())});
          },
          py::arg("row"), py::arg("col"), "The key of a cell of a grid.")
      .def("discard_older", DiscardOlder, py::arg("version"), py::pos_only(),
           "Removes the versions of all tiles with smaller stamps, and returns how many.");
}

}  // namespace hxpy
