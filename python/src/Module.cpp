#include "Errors.h"
#include "TilesClass.h"
#include "Types.h"

PYBIND11_MODULE(_hxcf, module) {
  using namespace hxpy;
  module.doc() = "The part of hxcf that is made of C++.";
  module.attr("__version__") = HX_VERSION;
  static_cast<void>(Get());
  WatchForks();
  py::register_exception_translator(Translate);
  const auto setUp = [](PyHeapTypeObject* type) {
    SetNoConstructor(type);
    SetSlots(type);
    SetIterator(type);
  };
  TilesClass tiles(module, "Tiles", py::custom_type_setup(setUp), py::is_final(),
                   "An open file of tiles: a mapping of keys to bytes.");
  DefinePayload(module);
  DefineSingle(tiles);
  DefineBatch(tiles);
  DefineWhole(tiles);
  DefineWalks(module, tiles);
  DefineOpen(module);
}
