// put_many

#include <deque>
#include <map>

#include "Errors.h"
#include "TilesClass.h"
#include "Types.h"

namespace hxpy {
namespace {

/// Stores that are made together. It holds what they are made of.
class Batch {
 public:
  Batch(Store& store, hx::Stamp stamp) : m_store(store), m_options{stamp} {}

  /// A pair of a key and data.
  void Add(const py::handle& pair) {
    const py::object items = Own(PySequence_Fast(pair.ptr(), "an item is a pair (key, data)"));
    if (PySequence_Fast_GET_SIZE(items.ptr()) != 2)
      throw py::value_error("an item is a pair (key, data)");
    const Item& item = m_items.emplace_back(PySequence_Fast_GET_ITEM(items.ptr(), 0),
                                            PySequence_Fast_GET_ITEM(items.ptr(), 1));
    m_bytes += item.buffer.Size();
  }
  bool IsFull() const { return m_items.size() >= kMostItems || m_bytes >= kMostBytes; }

  /// Returns how many there were, and is empty then.
  std::uint64_t StoreAll() {
    const Store::Use use(m_store);
    std::map<hx::Container*, std::vector<hx::Put>> puts;
    for (const Item& item : m_items) {
      const Store::Use::Place place = use.FindToStore(item.address);
      puts[place.container].push_back(
          {place.key, hx::Bytes(item.buffer.Data(), item.buffer.Size()), m_options});
    }
    WithoutLock([&] {
      for (const auto& [container, some] : puts)
        container->put_all(some);
    });
    const std::uint64_t count = m_items.size();
    m_items.clear();
    m_bytes = 0;
    return count;
  }

 private:
  static constexpr std::size_t kMostItems = 1024;
  static constexpr std::size_t kMostBytes = 8 << 20;

  struct Item {
    Item(PyObject* theKey, PyObject* data)
        : key(py::reinterpret_borrow<py::object>(theKey)), address(theKey), buffer(data) {}
    py::object key;  // which the address is a view of
    Address address;
    Buffer buffer;
  };

  Store& m_store;
  const hx::PutOptions m_options;
  std::deque<Item> m_items;  // they stay where they are
  std::size_t m_bytes = 0;
};

// The file is in no use while the caller's iterator runs: that may close it.
std::uint64_t PutMany(const Tiles& tiles, const py::object& items, const py::object& version) {
  Batch batch(*tiles.store, ToStamp(version.ptr()));
  std::uint64_t count = 0;
  const bool isMapping = py::hasattr(items, "keys");
  const py::object iterator =
      Own(PyObject_GetIter((isMapping ? items.attr("items")() : items).ptr()));
  const auto next = [&] { return StayAtExit([&] { return PyIter_Next(iterator.ptr()); }); };
  while (PyObject* const pair = next()) {
    batch.Add(py::reinterpret_steal<py::object>(pair));
    if (!batch.IsFull()) continue;
    count += batch.StoreAll();
    if (PyErr_CheckSignals() != 0) ThrowSet();
  }
  if (PyErr_Occurred() != nullptr) ThrowSet();
  return count + batch.StoreAll();
}

}  // namespace

void DefineBatch(TilesClass& tiles) {
  tiles
      .def("put_many", PutMany, py::arg("items"), py::pos_only(), py::kw_only(),
           py::arg("version") = 0,
           "Stores pairs (key, data), or a mapping, some hundred at a time, which is faster than "
           "one by one. Returns how many. If it raises, those of before may be stored and those "
           "behind may be not: see the documents.")
      .def(
          "update",
          [](const Tiles& self, const py::object& items) { PutMany(self, items, py::int_(0)); },
          py::arg("items"), py::pos_only(), "As put_many.");
}

}  // namespace hxpy
