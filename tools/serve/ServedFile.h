#pragma once

#include <hx/tiles.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Kept.h"
#include "Survey.h"

namespace Serve {

/// By what a tile is asked for.
using Address = std::variant<hx::Tile, hx::Cell, std::string>;

/// Whether a lookup has failed because there is no such tile.
bool IsMissing(hx::Cause cause);
/// As a status of HTTP: 404 for what is not there, 500 for what is damaged, else 503.
int StatusOf(hx::Cause cause);

/// A file that is served, or a set of grids. All threads share one open object; nothing that is
/// stored meanwhile is missed, for no tile is kept.
class ServedFile {
 public:
  enum class Kind { kPyramid, kGrid, kNames };
  /// What is known of a file without a walk over all of it.
  struct Facts {
    Kind kind = Kind::kNames;
    std::uint64_t tiles = 0;
    std::string format;  ///< "png"; empty if that is not known
    hx::Metadata metadata;
  };

  /// Throws hx::Error if it cannot be opened.
  ServedFile(std::string name, std::filesystem::path path, hx::Options options);

  const std::string& Name() const { return m_name; }
  const std::filesystem::path& Path() const { return m_path; }
  bool HasPassword() const { return !m_options.password.empty(); }

  /// Finds a tile. If the file was replaced by one that only a new object can read, it is opened
  /// anew, here and in all that follows. What does not fit to the kind of the file fails
  /// (Cause::kWrongKind).
  hx::Status Find(const Address& address, hx::Payload& payload, hx::Stamp stamp) const;
  /// The newest first. Throws hx::Error.
  std::vector<hx::Version> Versions(const Address& address) const;
  /// Whether it can be read at all: anything but kNone and kNoTile is a fault.
  hx::Cause Check() const;

  /// As they are now; empty if there are none. Throws hx::Error.
  std::shared_ptr<const hx::Metadata> GetMetadata() const;
  /// These are kept for some seconds, and throw hx::Error. The facts may need the index, the survey
  /// needs a walk, which ends with Cause::kCancelled if `isStopping` becomes true.
  std::shared_ptr<const Facts> GetFacts() const;
  std::shared_ptr<const Survey> GetSurvey(const std::atomic<bool>& isStopping) const;
  /// At most so many names behind `after`, in the order of their bytes. Walks over all.
  std::vector<std::string> Names(std::string_view prefix, std::string_view after, std::size_t most,
                                 const std::atomic<bool>& isStopping) const;

 private:
  struct Handle;
  struct Description {
    std::string text;
    hx::Metadata metadata;  // which the text says
  };

  std::shared_ptr<const Handle> Use() const;
  template <typename Read>
  auto With(Read read) const;
  bool Reopen() const;
  static std::optional<Address> FindFirst(const Handle& handle, bool& hasOtherNames);
  static Facts LookAround(const Handle& handle);
  Survey WalkAll(const Handle& handle, const std::atomic<bool>& isStopping) const;

  const std::string m_name;
  const std::filesystem::path m_path;
  const hx::Options m_options;
  mutable std::atomic<std::shared_ptr<const Handle>> m_handle;
  mutable std::mutex m_opening;
  mutable std::chrono::steady_clock::time_point m_nextOpening;
  mutable std::atomic<std::shared_ptr<const Description>> m_description;  // the last one
  mutable Kept<Facts> m_facts;
  mutable Kept<Survey> m_survey;
};

}  // namespace Serve
