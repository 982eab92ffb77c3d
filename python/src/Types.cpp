#include "Types.h"

namespace hxpy {
namespace {

PyTypeObject* TypeOf(const py::module_& module, const char* name) {
  return reinterpret_cast<PyTypeObject*>(py::object(module.attr(name)).release().ptr());
}

Types Load() {
  const auto types = py::module_::import("hxcf._types");
  const auto errors = py::module_::import("hxcf._errors");
  return {TypeOf(types, "Tile"),
          TypeOf(types, "Cell"),
          TypeOf(types, "Names"),
          TypeOf(types, "Grid"),
          TypeOf(types, "ZoomRange"),
          TypeOf(types, "Version"),
          TypeOf(types, "Entry"),
          TypeOf(types, "Statistics"),
          TypeOf(types, "Finding"),
          TypeOf(types, "Check"),
          py::object(errors.attr("_make")).release(),
          py::object(errors.attr("ForkError")).release()};
}

const char* KindOf(const hx::Finding& finding) {
  switch (finding.kind) {
    case hx::Finding::kHeader:
      return "header";
    case hx::Finding::kIndex:
      return "index";
    case hx::Finding::kEntry:
      return "entry";
    case hx::Finding::kRecord:
      return "record";
    case hx::Finding::kVersion:
      return "version";
    case hx::Finding::kOverlap:
      return "overlap";
    case hx::Finding::kUnreadable:
      return "unreadable";
  }
  return "other";
}

std::uint64_t ToUnsigned(PyObject* number, std::uint64_t most, const char* message) {
  const py::object index = Own(PyNumber_Index(number));
  const unsigned long long value = PyLong_AsUnsignedLongLong(index.ptr());
  const bool isFailed = PyErr_Occurred() != nullptr;
  PyErr_Clear();
  if (isFailed || value > most) throw py::value_error(message);
  return value;
}

}  // namespace

const Types& Get() {
  static const Types types = Load();
  return types;
}

py::object ToPython(std::string_view text) {
  return Own(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass"));
}

py::object ToPython(const hx::Tile& tile) {
  return MakeTuple(Get().tile, ToPython(tile.z), ToPython(tile.x), ToPython(tile.y));
}

py::object ToPython(const hx::Cell& cell) {
  return MakeTuple(Get().cell, ToPython(cell.row), ToPython(cell.col));
}

py::object ToPython(const hx::Version& version) {
  return MakeTuple(Get().version, ToPython(version.stamp), ToPython(version.capacity),
                   ToPython(version.filledLength));
}

py::object ToPython(const hx::Statistics& all) {
  return MakeTuple(Get().statistics, ToPython(all.tiles), ToPython(all.entries),
                   ToPython(all.indexBytes), ToPython(all.fileBytes), ToPython(all.versions),
                   ToPython(all.payloadBytes), ToPython(all.liveBytes), ToPython(all.deadBytes),
                   ToPython(all.damaged));
}

py::object ToPython(const hx::Finding& finding, const std::string& path) {
  return MakeTuple(Get().finding, ToPython(std::string_view(KindOf(finding))),
                   DecodePath(path.c_str()), ToPython(finding.position), ToPython(finding.number),
                   ToPython(std::uint64_t{finding.row}), ToPython(std::uint64_t{finding.col}),
                   ToPython(finding.version), ToPython(std::string_view(finding.message)));
}

py::object ToPython(const std::vector<hx::Stamp>& stamps) {
  py::tuple tuple(stamps.size());
  for (std::size_t i = 0; i < stamps.size(); ++i)
    tuple[i] = ToPython(stamps[i]);
  return tuple;
}

std::string ToUtf8(const py::str& text, const char* errors) {
  return py::reinterpret_steal<py::bytes>(
      Own(PyUnicode_AsEncodedString(text.ptr(), "utf-8", errors)).release());
}

std::uint64_t ToSize(PyObject* number) {
  return ToUnsigned(number, UINT64_MAX, "sizes and positions are numbers from 0 to 2**64 - 1");
}

hx::Stamp ToStamp(PyObject* number) {
  return ToUnsigned(number, UINT64_MAX, "a stamp is a number from 0 to 2**64 - 1");
}

std::uint32_t ToNumber(PyObject* number) {
  constexpr const char* kMessage = "zooms, rows and columns are numbers from 0 to 2**32 - 1";
  return static_cast<std::uint32_t>(ToUnsigned(number, UINT32_MAX, kMessage));
}

}  // namespace hxpy
