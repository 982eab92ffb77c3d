#pragma once

namespace Zarn {

/// Holder of the single instance of T. The pointer is declared here, declared once more as an
/// explicit specialisation in T's header, and defined in one source file of the library that owns
/// T; so all users see one instance.
template <typename T>
class ZrSingleton {
 protected:
  /// Null while there is no instance.
  static T* m_pSingleton;
};

}  // namespace Zarn
