#pragma once

#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Cause.h"
#include "ImageWriter.h"
#include "IndexWalker.h"
#include "OpenFile.h"
#include "RecordReader.h"
#include "ZrResult.h"

namespace Zarn::Engine {

/// Copies what is alive in a container into a new, empty one of the same kind and size: each tile
/// with its versions, one record per version, the oldest first. Records come out as if the versions
/// had been stored in that order, but how far each is filled, and the status of tile and versions,
/// stay as they were; and where the tables of older versions, which nothing reads, would take more
/// than a part of the payloads, they have no entry but their own.
class TileCopier {
 public:
  /// Turns a stored name, of a file of the older version, into UTF-16; false if it cannot.
  using NameDecoder = std::function<bool(const Format::StoredName& stored, std::u16string& name)>;
  /// Told how many of all entries are done, now and then; false ends the copying.
  using Progress = std::function<bool(std::uint64_t done, std::uint64_t all)>;

  enum Layout {
    kAsStored,
    kTight,  ///< no older version has the table; and records lie in the unused room of others where
             ///< they do in the source. Takes a look at all heads beforehand.
  };

  /// `sizes`: the host's numbers, for a naming file.
  TileCopier(const OpenFile& source, const MaxSizes::Values& sizes, ZrFile64& target, Layout layout,
             NameDecoder decode, Progress progress);

  /// kOk; kReadFailure if something in the source cannot be read, or holds what nothing writes;
  /// kWriteFailure if the target cannot be written, if a name cannot be converted or stored, or if
  /// the copying was ended.
  unsigned int Copy();
  /// It has failed because the target would become longer than the source. What names need more in
  /// UTF-16 does not count.
  bool IsTooLong() const { return m_isTooLong; }

  /// Of what was copied; see ImageWriter.
  const Format::RedoChecksum& GetChecksum() const { return m_writer.GetChecksum(); }
  std::uint64_t GetChecksumStart() const { return m_writer.GetChecksumStart(); }

 private:
  struct Version {
    std::uint64_t stamp;
    std::uint64_t locator;
  };

  bool PlaceCrowdedRecords();
  bool CollectExtents(const Io::IndexWalker& cells);
  bool AddExtent(std::uint64_t position);
  bool PlaceRecord(std::uint64_t position);
  bool LeadToPlaced(std::uint64_t& value) const;
  bool Extend();

  using CellsVisit = bool (TileCopier::*)(const Io::IndexWalker& cells);
  bool ForAllCells(CellsVisit visit);
  bool CopyCells(const Io::IndexWalker& cells);

  bool CopyNames();
  bool CopyName(std::uint32_t number, std::uint64_t value);
  bool WriteCount();

  /// A name as the source stores it, and what it is in the target.
  struct Name {
    std::string stored;
    std::uint32_t charset = 0;
    std::u16string units;
  };
  bool Decode(Name& name) const;
  bool ReadName(std::uint32_t slot, Name& name);
  bool FindCode(const Name& name, std::uint64_t& code);
  /// A slot of the target.
  struct CopiedName {
    std::uint64_t code;
    std::uint32_t source;  // its slot there
  };
  const CopiedName* FindCopied(std::uint64_t code) const;

  bool ReadRecord(std::uint64_t position, std::uint64_t hint);
  bool WriteTile(std::uint64_t& value, const Format::StoredName& name);
  void CollectVersions();
  bool BeginHead(Version& version, const Format::StoredName& name);
  bool AppendVersion(std::size_t number, const Format::StoredName& name);
  bool HasWholeTable(std::size_t number);
  bool HasRoomFor(std::uint64_t size);
  bool TellNowAndThen();
  // The source cannot be read, or holds what nothing writes.
  bool CannotRead() {
    Io::FailUnlessBySystem(ZrCause::kDamagedRecord);
    m_failure = ZrResult::kReadFailure;
    return false;
  }

  const OpenFile& m_source;
  const MaxSizes::Values m_sizes;
  const ZrFile64& m_file;  // of the source
  ZrFile64& m_target;
  const Layout m_layout;
  const NameDecoder m_decode;
  const Progress m_progress;
  const Format::RecordShape m_records;  // of the source
  const Format::IndexShape m_index;     // of the source
  Io::RecordReader m_reader;
  std::uint64_t m_sourceLength = 0;  // of the source, in bytes
  std::uint64_t m_limit = 0;         // of the target
  bool m_isTooLong = false;
  unsigned int m_failure = ZrResult::kWriteFailure;  // what a failure is answered with
  std::uint64_t m_read = 0;                          // bytes of all records read
  ZrByteArray m_payload;                             // of the record read last
  std::vector<Version> m_versions;                   // of the tile being copied, that are alive
  std::uint64_t m_payloadBytes = 0;                  // of those of them that were written
  std::uint64_t m_tableBytes = 0;                    // of what was written for entries of others
  std::vector<Format::RecordExtent> m_extents;
  // Records that are in the target already: where they are in the source, and in the target.
  std::unordered_map<std::uint64_t, std::uint64_t> m_placed;
  std::uint64_t m_statedEnd = 0;  // of those
  ZrByteArray m_headBytes;
  Format::RecordImage m_head;  // of the version written last
  ImageWriter m_writer;
  std::uint64_t m_done = 0;  // entries of the index that were visited
  std::uint64_t m_all = 0;
  std::uint64_t m_told = 0;          // position at the last call of m_progress
  std::vector<CopiedName> m_copied;  // the slots of the target
  std::optional<NameTable> m_table;  // of them
};

}  // namespace Zarn::Engine
