#pragma once

#include <hx/tiles.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Address.h"
#include "Python.h"

namespace hxpy {

/// What is open: a grid by itself, a container of names, or a folder with grids for some zooms.
struct Archive {
  struct Layer {
    std::optional<hx::ZoomRange> range;  // of a folder
    hx::Container* container;
  };
  enum class Kind : std::uint8_t { kNames, kGrid, kGrids };

  explicit Archive(hx::Container file);
  explicit Archive(hx::Tileset folder);
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;
  static std::unique_ptr<Archive> Open(const std::filesystem::path& path,
                                       const hx::Options& options);

  hx::Container grid;  // by itself
  hx::Tileset set;     // else
  std::vector<Layer> layers;
  Kind kind;
};

/// An archive that threads of Python share. It closes when it is told to and nobody uses it, or
/// when its last owner goes. All calls need Python's lock, which also guards the members.
class Store {
 public:
  Store(std::unique_ptr<Archive> archive, std::string path);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// A call that uses the archive. Throws ClosedError and ForkError.
  class Use {
   public:
    explicit Use(Store& store);
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    Archive* operator->() const { return m_store.m_archive.get(); }
    Archive& operator*() const { return *m_store.m_archive; }

    /// Where a tile is; nothing if none can be there. Throws KindError.
    struct Place {
      hx::Container* container;
      hx::Key key;
    };
    std::optional<Place> Find(const Address& address) const;
    /// The same, to store. Throws ArgumentError.
    Place FindToStore(const Address& address) const;

    /// Removes a tile, or one version of it. False if it was not there: of several threads that
    /// remove the same, one is told true. Without Python's lock.
    bool Erase(const Place& place, const std::optional<hx::Stamp>& stamp) const;

    /// Lets Python run the handlers of signals. Throws what they raise, and ForkError in a child
    /// that one of them has made.
    void CheckSignals() const;
    /// Throws ForkError in a child process that was made since.
    void CheckFork() const;

   private:
    static thread_local int s_depth;  // how many this thread has, of all archives
    friend class Store;

    Store& m_store;
  };

  bool IsClosed() const { return m_archive == nullptr || m_isClosing; }
  /// Waits for the calls of other threads that are under way; later ones find it closed. Throws
  /// RuntimeError where that could wait for ever: within a call of this thread.
  void Close();
  /// As it was opened.
  const std::string& GetPath() const { return m_path; }

 private:
  std::unique_ptr<Archive> m_archive;
  const std::string m_path;
  const unsigned int m_process;  // how many forks led to it
  int m_users = 0;
  bool m_isClosing = false;

  std::mutex m_mutex;  // taken after Python's lock is given up, or for a moment
  std::condition_variable m_change;
  std::mutex m_removal;  // held by one that removes a tile; taken without Python's lock
};

/// From now on forks are counted.
void WatchForks();

}  // namespace hxpy
