// hxcf.open

#include <map>

#include "Errors.h"
#include "TilesClass.h"
#include "Types.h"

namespace hxpy {
namespace {

namespace fs = std::filesystem;
using Ranges = std::vector<hx::ZoomRange>;

bool IsA(const py::handle& object, PyTypeObject* type) {
  return PyObject_TypeCheck(object.ptr(), type) != 0;
}

std::uint32_t NumberAt(const py::handle& tuple, Py_ssize_t at) {
  return ToNumber(PyTuple_GET_ITEM(tuple.ptr(), at));
}

Ranges ToRanges(const py::handle& layout) {
  Ranges ranges;
  for (const py::handle range : layout) {
    if (!IsA(range, Get().zoomRange))
      throw py::type_error("a layout is a Names, a Grid or a list of ZoomRange");
    ranges.push_back({NumberAt(range, 0), NumberAt(range, 1), NumberAt(range, 2),
                      NumberAt(range, 3), NumberAt(range, 4)});
  }
  return ranges;
}

hx::Layout ToLayout(const py::handle& layout) {
  if (layout.is_none()) return hx::Layout::names();
  return IsA(layout, Get().grid) ? hx::Layout::grid(NumberAt(layout, 0), NumberAt(layout, 1))
                                 : hx::Layout::names(NumberAt(layout, 0));
}

enum class Mode { kRead, kChange, kReplace, kCreate, kAppend };

Mode ToMode(const std::string& text) {
  static const std::map<std::string, Mode> modes = {{"r", Mode::kRead},
                                                    {"r+", Mode::kChange},
                                                    {"w", Mode::kReplace},
                                                    {"x", Mode::kCreate},
                                                    {"a", Mode::kAppend}};
  const auto found = modes.find(text);
  if (found == modes.end()) throw py::value_error("a mode is \"r\", \"r+\", \"w\", \"x\" or \"a\"");
  return found->second;
}

std::unique_ptr<Archive> OpenGrids(const fs::path& path, Mode mode, const Ranges& ranges,
                                   const hx::Options& options) {
  std::error_code ignored;
  if (mode == Mode::kAppend && fs::exists(path / "tileset.json", ignored))
    return Archive::Open(path, options);
  return std::make_unique<Archive>(hx::Tileset::create_grids(path, ranges, {}, options));
}

std::unique_ptr<Archive> OpenFile(const fs::path& path, Mode mode, const hx::Layout& layout,
                                  const hx::Options& options) {
  std::error_code ignored;
  switch (mode) {
    case Mode::kReplace:
      return std::make_unique<Archive>(hx::Container::replace(path, layout, options));
    case Mode::kCreate:
      return std::make_unique<Archive>(hx::Container::create(path, layout, options));
    case Mode::kAppend:
      if (!fs::is_directory(path, ignored))
        return std::make_unique<Archive>(hx::Container::open_or_create(path, layout, options));
      break;
    default:
      break;
  }
  return Archive::Open(path, options);
}

// The library takes paths as texts, and would find another file by bytes that are none.
fs::path ToPath(const py::object& path, bool opensOnly) {
  PyObject* converted = nullptr;
  if (PyUnicode_FSConverter(path.ptr(), &converted) == 0) ThrowSet();
  const std::string bytes = py::reinterpret_steal<py::bytes>(converted);
  const auto text = py::reinterpret_steal<py::object>(
      PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "strict"));
  if (!text) {
    PyErr_Clear();
    Throw(opensOnly ? Zarn::ZrResult::kNotFound : Zarn::ZrResult::kNotCreated, hx::Cause::kBadPath,
          bytes, "use a path that is no UTF-8:");
  }
  return bytes;
}

Tiles Open(const py::object& path, const std::string& mode, const py::object& layout,
           bool processLock, bool mapped, const std::string& password) {
  const Mode how = ToMode(mode);
  const bool opensOnly = how == Mode::kRead || how == Mode::kChange;
  const fs::path file = ToPath(path, opensOnly);
  hx::Options options;
  options.read_only = how == Mode::kRead;
  options.shared = processLock;
  options.mapped = mapped;
  options.password = password;
  if (opensOnly && !layout.is_none()) throw py::value_error("only a new file takes a layout");
  std::unique_ptr<Archive> archive;
  if (opensOnly || layout.is_none() || IsA(layout, Get().names) || IsA(layout, Get().grid)) {
    const hx::Layout what = ToLayout(layout);
    archive = WithoutLock([&] { return OpenFile(file, how, what, options); });
  } else {
    const Ranges ranges = ToRanges(layout);
    if (how == Mode::kReplace) throw py::value_error("a folder of grids cannot be replaced");
    archive = WithoutLock([&] { return OpenGrids(file, how, ranges, options); });
  }
  std::string name =
      archive->kind == Archive::Kind::kGrids ? file.native() : archive->layers[0].container->path();
  return {std::make_shared<Store>(std::move(archive), std::move(name)), mode};
}

}  // namespace

void DefineOpen(py::module_& module) {
  module.def("open", Open, py::arg("path"), py::arg("mode") = "r", py::kw_only(),
             py::arg("layout") = py::none(), py::arg("process_lock") = true,
             py::arg("mapped") = false, py::arg("password") = "",
             "Opens a file of tiles, or a folder of grids.\n\n"
             "mode: \"r\" to read, \"r+\" to read and write; \"w\" replaces what is there, \"x\" "
             "creates, and \"a\" does so if nothing is there.\n"
             "layout: of a new file. Names() by default, Grid(rows, cols), or ZoomRanges.\n"
             "process_lock: others use the file at the same time; all of them must say so.\n"
             "mapped: lookups copy from a mapping. If a program that is none of the openers cuts "
             "the file, this process may end by SIGBUS.\n"
             "password: keeps a file from being opened by mistake; it is no encryption.");
}

}  // namespace hxpy
