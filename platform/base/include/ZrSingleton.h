#pragma once

namespace Zarn {

/// Holder of the single instance of T. The pointer is declared here and defined, as an explicit
/// specialisation, in one source file of the library that owns T; so all users see one instance.
template <typename T>
class ZrSingleton {
 protected:
  static T* m_pSingleton;
};

}  // namespace Zarn
