// What is about the whole file.

#include "Errors.h"
#include "TilesClass.h"
#include "Types.h"

namespace hxpy {
namespace {

using hx::Container;

/// Runs a long call for each file without Python's lock. The progress that the call is given asks
/// Python whether a key was pressed, and then the function of the caller, if there is one.
class LongCall {
 public:
  LongCall(const Tiles& tiles, py::object function)
      : m_use(*tiles.store), m_function(std::move(function)) {}

  /// `call(container, progress)`; false ends them.
  template <typename Call>
  void ForEach(Call call) {
    for (const Archive::Layer& layer : m_use->layers) {
      Unlocked unlocked;
      const auto progress = [&](std::uint64_t done, std::uint64_t total) {
        return unlocked.Locked([&] { return GoesOn(done, total); });
      };
      try {
        if (!call(*layer.container, Container::Progress(progress))) break;
      } catch (const hx::Error&) {
        if (!m_hasFailed) throw;
      }
      if (m_hasFailed) break;
    }
    if (m_hasFailed) ThrowSet();
  }
  const Archive& GetArchive() const { return *m_use; }

 private:
  // An exception of Python stays set until the call has ended.
  bool GoesOn(std::uint64_t done, std::uint64_t total) {
    if (m_hasFailed) return false;
    try {
      m_use.CheckSignals();
      if (m_function.is_none()) return true;
      const py::object answer = Own(
          StayAtExit([&] { return PyObject_CallFunction(m_function.ptr(), "KK", done, total); }));
      m_use.CheckFork();
      return answer.ptr() != Py_False;
    } catch (py::error_already_set& error) {
      error.restore();
    }
    m_hasFailed = true;
    return false;
  }

  const Store::Use m_use;
  const py::object m_function;
  bool m_hasFailed = false;
};

void Compact(const Tiles& tiles, const py::object& progress) {
  LongCall(tiles, progress).ForEach([](Container& file, const Container::Progress& tell) {
    file.compact(tell);
    return true;
  });
}

py::object CountAll(const Tiles& tiles, const py::object& progress) {
  hx::Statistics sum;
  LongCall(tiles, progress).ForEach([&](Container& file, const Container::Progress& tell) {
    sum += file.statistics(tell);
    return true;
  });
  return ToPython(sum);
}

/// What a check has found up to now.
struct Check {
  struct Found {
    hx::Finding finding;
    std::string path;
  };
  std::vector<Found> findings;
  std::uint64_t found = 0;
  hx::VerifySummary sum;

  void Add(const hx::VerifySummary& some) {
    sum.tiles += some.tiles;
    sum.versions += some.versions;
    sum.indexBytes += some.indexBytes;
    sum.liveBytes += some.liveBytes;
    sum.deadBytes += some.deadBytes;
  }
};

// A check ends if an index of names grows, for it was of the smaller one. That is rare, for each is
// twice as large.
void VerifyFile(Container& file, const Container::Progress& tell, std::size_t limit, Check& check) {
  constexpr int kTries = 20;
  const std::string path = file.path();
  const std::size_t known = check.findings.size();
  const std::uint64_t found = check.found;
  for (int i = 1;; ++i)
    try {
      hx::VerifySummary summary;
      const auto report = [&](const hx::Finding& finding) {
        ++check.found;
        if (check.findings.size() < limit) check.findings.push_back({finding, path});
        return true;
      };
      file.verify(report, &summary, tell);
      return check.Add(summary);
    } catch (const hx::Error& error) {
      if (error.cause() != hx::Cause::kMoved || i == kTries) throw;
      check.findings.resize(known);
      check.found = found;
    }
}

py::object Verify(const Tiles& tiles, const py::object& progress, const py::object& most) {
  const std::uint64_t limit = ToSize(most.ptr());
  Check check;
  LongCall(tiles, progress).ForEach([&](Container& file, const Container::Progress& tell) {
    VerifyFile(file, tell, limit, check);
    return true;
  });
  py::tuple findings(check.findings.size());
  for (std::size_t i = 0; i < check.findings.size(); ++i)
    findings[i] = ToPython(check.findings[i].finding, check.findings[i].path);
  const hx::VerifySummary& sum = check.sum;
  return MakeTuple(Get().check, py::object(std::move(findings)), ToPython(check.found),
                   ToPython(sum.tiles), ToPython(sum.versions), ToPython(sum.indexBytes),
                   ToPython(sum.liveBytes), ToPython(sum.deadBytes));
}

void Flush(const Tiles& tiles) {
  const Store::Use use(*tiles.store);
  WithoutLock([&] {
    for (const Archive::Layer& layer : use->layers)
      layer.container->flush();
  });
}

void SetPassword(const Tiles& tiles, const std::string& password) {
  const Store::Use use(*tiles.store);
  WithoutLock([&] {
    for (const Archive::Layer& layer : use->layers)
      layer.container->set_password(password);
  });
}

py::object PathOf(const Tiles& tiles) { return DecodePath(tiles.store->GetPath().c_str()); }

py::object LayoutOf(const Tiles& tiles) {
  const Store::Use use(*tiles.store);
  if (use->kind == Archive::Kind::kGrids) {
    py::list ranges;
    for (const auto& [range, container] : use->layers)
      ranges.append(MakeTuple(
          Get().zoomRange, ToPython(std::uint64_t{range->zoom}),
          ToPython(std::uint64_t{range->first_col}), ToPython(std::uint64_t{range->first_row}),
          ToPython(std::uint64_t{range->cols}), ToPython(std::uint64_t{range->rows})));
    return ranges;
  }
  const hx::Layout layout = WithoutLock([&] { return use->layers[0].container->layout(); });
  return layout.is_grid() ? MakeTuple(Get().grid, ToPython(std::uint64_t{layout.rows()}),
                                      ToPython(std::uint64_t{layout.cols()}))
                          : MakeTuple(Get().names, ToPython(std::uint64_t{layout.capacity()}));
}

// The set that has the metadata.
hx::Tileset& SetOf(const Store::Use& use, const std::string& path) {
  if (use->kind == Archive::Kind::kGrid)
    Throw(Zarn::ZrResult::kWrongFile, hx::Cause::kWrongKind, path, "find metadata in");
  return use->set;
}

py::dict GetMetadata(const Tiles& tiles) {
  const Store::Use use(*tiles.store);
  hx::Tileset& set = SetOf(use, tiles.store->GetPath());
  const hx::Metadata metadata = WithoutLock([&] { return set.metadata(); });
  py::dict values;
  for (const auto& [key, value] : metadata.values())
    values[ToPython(std::string_view(key))] = ToPython(std::string_view(value));
  return values;
}

void SetMetadata(const Tiles& tiles, const py::dict& values) {
  const Store::Use use(*tiles.store);
  hx::Tileset& set = SetOf(use, tiles.store->GetPath());
  hx::Metadata metadata;
  for (const auto& [key, value] : values) {
    if (!py::isinstance<py::str>(key) || !py::isinstance<py::str>(value))
      throw py::type_error("keys and values of metadata are texts");
    metadata.set(ToUtf8(py::reinterpret_borrow<py::str>(key)),
                 ToUtf8(py::reinterpret_borrow<py::str>(value)));
  }
  WithoutLock([&] { set.set_metadata(metadata); });
}

py::object MetadataOf(const py::object& self) {
  return py::module_::import("hxcf._meta").attr("Metadata")(self);
}

std::string Describe(const Tiles& tiles) {
  const Store& store = *tiles.store;
  return "<hxcf.Tiles " + std::string(py::repr(py::str(PathOf(tiles)))) + ", mode '" + tiles.mode +
         (store.IsClosed() ? "', closed>" : "'>");
}

}  // namespace

void DefineWhole(TilesClass& tiles) {
  const auto progress = py::arg("progress") = py::none();
  tiles
      .def("compact", Compact, progress,
           "Rewrites the file without the space that replaced and removed tiles have left. "
           "progress(done, total) may return False to cancel.")
      .def("verify", Verify, progress, py::kw_only(), py::arg("limit") = 1000,
           "Checks the whole file. The answer is true if it is sound; else it has up to `limit` "
           "findings of each check.")
      .def("stats", CountAll, progress, "Counts tiles, versions, and bytes alive and dead.")
      .def("flush", Flush, "Waits until what was stored would survive a loss of power.")
      .def("set_password", SetPassword, py::arg("password"),
           "Keeps the file from being opened without this password; empty: by none.")
      .def(
          "close", [](const Tiles& self) { self.store->Close(); },
          "Closes the file, after the calls of other threads that are under way.")
      .def_property_readonly(
          "closed", [](const Tiles& self) { return self.store->IsClosed(); },
          "Whether it was closed.")
      .def("__enter__", [](const py::object& self) { return self; })
      .def("__exit__", [](const Tiles& self, const py::args&) { self.store->Close(); })
      .def("__reduce_ex__", RefuseToPickle)
      .def("__repr__", Describe)
      .def_property_readonly("path", PathOf, "The file or the folder, as it was opened.")
      .def_readonly("mode", &Tiles::mode, "As it was opened.")
      .def_property_readonly("layout", LayoutOf, "Names, Grid, or a list of ZoomRange.")
      .def_property_readonly("meta", MetadataOf, "The metadata, a mapping of texts.")
      .def("_get_metadata", GetMetadata)
      .def("_set_metadata", SetMetadata);
}

}  // namespace hxpy
