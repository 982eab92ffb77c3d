#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <vector>

#include "Ledger.h"
#include "Sight.h"
#include "ZrCompactFile.h"
#include "ZrCompactFileReader.h"
#include "ZrCompactFileStub.h"

namespace Soak {

/// One of the two files, as one of its users has it open.
class File {
 public:
  File(const std::filesystem::path& folder, bool named, Kind kind, bool mapped);

  bool Create();
  bool Open();

  Sight Lookup(std::uint32_t tile, std::uint32_t asked);
  /// The first of the versions that this user can ask for; the last is kNewest.
  std::uint32_t FirstToAsk() const { return m_isLight ? kNewest : 0; }
  /// Whether everything that can be asked of the tile gives these versions.
  bool AllFit(std::uint32_t tile, const Versions& versions);

  /// Makes the planned changes of the tiles: a removal alone, a store alone or in a batch.
  /// `isLimited`: a limit on the size of files may stop it.
  unsigned int Apply(const std::vector<std::uint32_t>& tiles, bool isLimited);
  std::uint64_t GetFileSize() const;
  unsigned int Compact();
  unsigned int Verify();
  unsigned int ChangePassword();

 private:
  static constexpr std::uint32_t kNoPassword = UINT32_MAX;
  using Operation = std::function<unsigned int()>;

  unsigned int Read(std::uint32_t tile, std::uint32_t asked, Zarn::ZrByteArray& data,
                    unsigned long long& filled);
  unsigned int Store(const std::vector<std::uint32_t>& tiles);
  template <typename Call>
  unsigned int At(std::uint32_t tile, Call call) const;
  unsigned int Try(const Operation& operation, bool isLimited = false);
  bool ReopenUnless(std::uint32_t before);
  unsigned int OpenWith(const PelmUnicodeString& password);

  const PelmUnicodeString m_path;
  const bool m_named;
  const bool m_isLight;
  const bool m_isStub;
  const Zarn::ZrCompactFile::ZrOpenMode m_mode;
  bool m_mayWrite = false;  // then opening the file finishes a compaction that was cut short
  std::atomic<std::uint32_t> m_password = kNoPassword;
  std::mutex m_mutex;  // held while a thread opens the file anew
  Zarn::ZrCompactFile m_file;
  Zarn::ZrCompactFileReader m_reader;  // in its place, for the lookups of light users and stubs
  Zarn::ZrCompactFileStub m_stub;      // for the stores of a stub
};

/// A user of the files: of both, or of the grid alone.
class User {
 public:
  User(const std::filesystem::path& folder, Kind how, bool mapped)
      : kind(how),
        isMapped(mapped),
        files{File(folder, false, kind, mapped), File(folder, true, kind, mapped)},
        count(kind == Kind::kLight || kind == Kind::kStub ? 1 : 2) {}

  bool Open() { return files[0].Open() && (count == 1 || files[1].Open()); }
  File& Of(std::uint32_t tile) { return files[tile / kTiles]; }
  bool MayStore() const {
    return kind == Kind::kEngine || kind == Kind::kThreads || kind == Kind::kStub;
  }

  const Kind kind;
  const bool isMapped;
  std::array<File, 2> files;
  const std::uint32_t count;  // of the files that it uses
};

}  // namespace Soak
