// keys, values, items, entries and what they return.

#include <algorithm>
#include <optional>

#include "Errors.h"
#include "TilesClass.h"
#include "Types.h"

namespace hxpy {
namespace {

enum class Wanted : std::uint8_t { kKeys, kValues, kItems, kEntries };

/// Which tiles a walk gives.
struct Filter {
  std::string prefix;
  std::optional<std::vector<std::uint32_t>> zooms;

  bool IsForAll() const { return prefix.empty() && !zooms; }
  bool HoldsZoom(std::uint32_t zoom) const {
    return !zooms || std::find(zooms->begin(), zooms->end(), zoom) != zooms->end();
  }
  bool Holds(std::string_view name, const std::optional<hx::Tile>& tile) const {
    return name.substr(0, prefix.size()) == prefix && (!zooms || (tile && HoldsZoom(tile->z)));
  }
};

/// The class Walk of the module: an iterator that reads ahead.
class Walk {
 public:
  Walk(std::shared_ptr<Store> store, Wanted wanted, Filter filter)
      : m_store(std::move(store)), m_wanted(wanted), m_filter(std::move(filter)) {
    const Store::Use use(*m_store);
    m_isGrid = use->kind == Archive::Kind::kGrid;
    if (m_isGrid && !m_filter.IsForAll())
      Throw(Zarn::ZrResult::kWrongFile, hx::Cause::kWrongKind, m_store->GetPath(),
            "find zooms and names in");
  }

  /// The next one; null at the end.
  PyObject* Next() {
    // Python itself asks only between its own instructions, and a list is made by one.
    constexpr unsigned int kTilesPerCheck = 256;
    if (++m_calls % kTilesPerCheck == 0 && PyErr_CheckSignals() != 0) ThrowSet();
    if (m_isBusy) throw py::value_error("another thread uses this iterator");
    const Store::Use use(*m_store);
    const Busy busy(*this);
    for (;;) {
      switch (WithoutLock([&] { return GoOn(*use); })) {
        case Step::kTile:
          return Make().release().ptr();
        case Step::kEnd:
          return nullptr;
        case Step::kPause:
          use.CheckSignals();
      }
    }
  }
  std::uint64_t GetDamaged() const { return m_damagedToTell; }

 private:
  // The calls of one thread. Others see only what it has left.
  struct Busy {
    explicit Busy(Walk& theWalk) : walk(theWalk) { walk.m_isBusy = true; }
    ~Busy() {
      walk.m_isBusy = false;
      walk.m_damagedToTell = walk.m_damaged + (walk.m_cursor ? walk.m_cursor->damaged() : 0);
    }
    Walk& walk;
  };
  enum class Step { kTile, kEnd, kPause };

  // To the next tile that is wanted. Without Python's lock.
  Step GoOn(Archive& archive) {
    constexpr int kMostPassedOver = 1024;
    for (int i = 0; i < kMostPassedOver; ++i) {
      if (!m_cursor && !Begin(archive)) return Step::kEnd;
      if (!m_cursor->next()) {
        m_damaged += m_cursor->damaged();
        m_cursor.reset();
        ++m_layer;
      } else if (Take(archive.layers[m_layer])) {
        return Step::kTile;
      }
    }
    return Step::kPause;
  }
  // The walk over the next file.
  bool Begin(Archive& archive) {
    const auto isLeftOut = [&] {
      const auto& range = archive.layers[m_layer].range;
      return range && !m_filter.HoldsZoom(range->zoom);
    };
    while (m_layer < archive.layers.size() && isLeftOut())
      ++m_layer;
    if (m_layer == archive.layers.size()) return false;
    const bool readsPayloads = m_wanted == Wanted::kValues || m_wanted == Wanted::kItems;
    m_cursor.emplace(archive.layers[m_layer].container->tiles({readsPayloads, {}}));
    return true;
  }
  // The key of the tile that was reached. False if it is not wanted.
  bool Take(const Archive::Layer& layer) {
    const hx::Entry& entry = m_cursor->entry();
    if (m_isGrid) {
      m_cell = entry.cell();
      return true;
    }
    if (layer.range) {
      const hx::Cell cell = entry.cell();
      m_tile = {layer.range->zoom, layer.range->first_col + cell.col,
                layer.range->first_row + cell.row};
      return m_filter.prefix.empty() || m_filter.Holds(m_tile->name(), m_tile);
    }
    m_name = entry.name();
    m_tile = hx::Tile::parse(m_name);
    return m_filter.Holds(m_name, m_tile);
  }
  py::object MakeKey() const {
    if (m_isGrid) return ToPython(m_cell);
    return m_tile ? ToPython(*m_tile) : ToPython(std::string_view(m_name));
  }
  py::object Make() const {
    const hx::Entry& entry = m_cursor->entry();
    switch (m_wanted) {
      case Wanted::kKeys:
        return MakeKey();
      case Wanted::kValues:
        return ToPython(entry.payload());
      case Wanted::kItems: {
        const py::object key = MakeKey(), bytes = ToPython(entry.payload());
        return Own(PyTuple_Pack(2, key.ptr(), bytes.ptr()));
      }
      case Wanted::kEntries:
        break;
    }
    return MakeTuple(Get().entry, MakeKey(), ToPython(entry.size()), ToPython(entry.filled()),
                     ToPython(entry.stamps()));
  }

  const std::shared_ptr<Store> m_store;
  const Wanted m_wanted;
  const Filter m_filter;
  bool m_isGrid = false;
  bool m_isBusy = false;
  unsigned int m_calls = 0;
  std::size_t m_layer = 0;
  std::optional<hx::Cursor> m_cursor;
  std::uint64_t m_damaged = 0;        // in the files before
  std::uint64_t m_damagedToTell = 0;  // in all; needs Python's lock
  // The key of the tile that was reached.
  hx::Cell m_cell;
  std::optional<hx::Tile> m_tile;
  std::string m_name;
};

PyObject* Next(PyObject* self) {
  return Guarded<PyObject*>(nullptr, [&] { return Self<Walk>(self).Next(); });
}

void SetWalkSlots(PyHeapTypeObject* type) {
  SetNoConstructor(type);
  type->ht_type.tp_iter = PyObject_SelfIter;
  type->ht_type.tp_iternext = Next;
}

// None, a number, or numbers.
Filter MakeFilter(const py::object& zoom, const py::str& prefix) {
  Filter filter{ToUtf8(prefix, "surrogatepass"), {}};
  if (PyIndex_Check(zoom.ptr()) != 0)
    filter.zooms = {ToNumber(zoom.ptr())};
  else if (!zoom.is_none())
    for (const py::handle one : filter.zooms.emplace(), zoom)
      filter.zooms->push_back(ToNumber(one.ptr()));
  return filter;
}

PyObject* IterateKeys(PyObject* self) {
  return Guarded<PyObject*>(nullptr, [&] {
    auto walk = std::make_unique<Walk>(Self<Tiles>(self).store, Wanted::kKeys, Filter());
    return py::cast(std::move(walk)).release().ptr();
  });
}

}  // namespace

void SetIterator(PyHeapTypeObject* type) { type->ht_type.tp_iter = IterateKeys; }

void DefineWalks(py::module_& module, TilesClass& tiles) {
  py::class_<Walk>(module, "Walk", py::custom_type_setup(SetWalkSlots), py::is_final(),
                   "An iterator over tiles. Others may change the file meanwhile: each tile that "
                   "is there all the time is given once.")
      .def("__reduce_ex__", RefuseToPickle)
      .def_property_readonly("damaged", &Walk::GetDamaged,
                             "How many damaged tiles were passed over up to now.");
  const auto define = [&](const char* name, Wanted wanted, const char* text) {
    tiles.def(
        name,
        [wanted](const Tiles& self, const py::object& zoom, const py::str& prefix) {
          return std::make_unique<Walk>(self.store, wanted, MakeFilter(zoom, prefix));
        },
        py::kw_only(), py::arg("zoom") = py::none(), py::arg("prefix") = "", text);
  };
  define("keys", Wanted::kKeys, "The keys of all tiles, of one zoom or several, or of a prefix.");
  define("values", Wanted::kValues, "The bytes of tiles, as keys.");
  define("items", Wanted::kItems, "Pairs of key and bytes, as keys.");
  define("entries", Wanted::kEntries, "Key, sizes and stamps of tiles, as keys.");
}

}  // namespace hxpy
