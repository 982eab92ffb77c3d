#include "ZrCompactFile.h"

#include <utility>

#include "Cause.h"
#include "Engine.h"
#include "Scramble.h"

namespace Zarn {
namespace {

/// An operation on the open file. None is a step of another one. A lookup that finds nothing may be
/// frequent; so the path of the last error is set only if it is another one.
class Call {
 public:
  Call(const Engine::Engine& engine, const char* action) noexcept
      : m_engine(engine), m_action(action) {
    Io::BeginOperation();
  }

  /// Passes the result on. A failure becomes the last error.
  unsigned int Answer(unsigned int result) const noexcept {
    if (result != ZrResult::kOk) [[unlikely]]
      Report(m_engine, m_action, result);
    return result;
  }
  bool Answer(bool isDone, ZrResult::Code failure) const noexcept {
    if (!isDone) [[unlikely]]
      Report(m_engine, m_action, failure);
    return isDone;
  }

 private:
  [[gnu::cold, gnu::noinline]] static void Report(const Engine::Engine& engine, const char* action,
                                                  unsigned int result) noexcept try {
    const std::uint64_t path = engine.GetPathNumber();
    if (!Io::SetLastError(action, result, path)) Io::SetLastPath(engine.GetFullPath(), path);
  } catch (const std::bad_alloc&) {
  }

  const Engine::Engine& m_engine;
  const char* const m_action;
};

constexpr const char* kStoring = "store into";
constexpr const char* kReading = "read from";
constexpr const char* kRemoving = "remove from";
constexpr const char* kListing = "list the versions of a tile of";
constexpr const char* kCounting = "count the tiles of";

}  // namespace

ZrCompactFile::ZrCompactFile() : m_engine(std::make_unique<Engine::Engine>(*this)) {
  SetCallBack(RefeshIndexCallBack, this);
}

ZrCompactFile::~ZrCompactFile() = default;

void RefeshIndexCallBack(void* owner) {
  if (owner != nullptr) static_cast<ZrCompactFile*>(owner)->m_engine->Refresh();
}

unsigned int ZrCompactFile::Create(const PelmUnicodeString& path, unsigned int rows,
                                   unsigned int cols, const PelmUnicodeString& password,
                                   ZrOpenMode mode) {
  return Io::PublicCall("create", path).Answer(m_engine->Create(path, rows, cols, password, mode));
}

unsigned int ZrCompactFile::Create(const PelmUnicodeString& path, unsigned long long capacity,
                                   const PelmUnicodeString& password, ZrOpenMode mode) {
  return Io::PublicCall("create", path).Answer(m_engine->Create(path, capacity, password, mode));
}

unsigned int ZrCompactFile::Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                                 ZrOpenMode mode) {
  return Io::PublicCall("open", path).Answer(m_engine->Open(path, password, mode));
}

bool ZrCompactFile::Close() {
  return Call(*m_engine, "close").Answer(m_engine->Close(), ZrResult::kWriteFailure);
}
bool ZrCompactFile::CloseAll() {
  return Call(*m_engine, "close").Answer(m_engine->CloseAll(), ZrResult::kNotUsable);
}

bool ZrCompactFile::IsOpen() const { return m_engine->IsOpen(); }
bool ZrCompactFile::Flush() {
  return Call(*m_engine, "flush").Answer(m_engine->Flush(), ZrResult::kWriteFailure);
}
PelmUnicodeString ZrCompactFile::GetFullPath() const { return m_engine->GetFullPath(); }
void ZrCompactFile::SetMaxSize(double first, double second) { m_engine->SetMaxSize(first, second); }
bool ZrCompactFile::IsVersionEnabled() const { return m_engine->IsVersionEnabled(); }
bool ZrCompactFile::IsDeadLocked() const { return isLocked(); }

unsigned int ZrCompactFile::GetIndexInfo(unsigned int& first, unsigned int& second) const {
  return m_engine->GetIndexInfo(first, second);
}

unsigned int ZrCompactFile::SetPassword(const PelmUnicodeString& password) {
  const Call call(*m_engine, "set the password of");
  const unsigned int result = m_engine->SetPassword(password);
  call.Answer(result != 0, ZrResult::kWriteFailure);
  return result;
}

unsigned int ZrCompactFile::Compact() {
  return Call(*m_engine, "compact").Answer(m_engine->Compact(CompactProgress()));
}

unsigned int ZrCompactFile::Compact(const CompactProgress& progress) {
  return Call(*m_engine, "compact").Answer(m_engine->Compact(progress));
}

unsigned int ZrCompactFile::Verify(ZrVerifySummary& summary) {
  return Call(*m_engine, "verify")
      .Answer(m_engine->Verify(summary, VerifyReport(), VerifyProgress()));
}

unsigned int ZrCompactFile::Verify(ZrVerifySummary& summary, const VerifyReport& report,
                                   const VerifyProgress& progress) {
  return Call(*m_engine, "verify").Answer(m_engine->Verify(summary, report, progress));
}

unsigned int ZrCompactFile::SetAt(unsigned int row, unsigned int col, const ZrByteArray& data,
                                  unsigned long long capacity, unsigned long long offset,
                                  unsigned long long version) {
  return Call(*m_engine, kStoring)
      .Answer(m_engine->SetAt(ZrCellStore{row, col, &data, capacity, offset, version}));
}

unsigned int ZrCompactFile::SetAt(unsigned int row, unsigned int col, const void* bytes,
                                  unsigned long long size, unsigned long long capacity,
                                  unsigned long long offset, unsigned long long version) {
  return Call(*m_engine, kStoring)
      .Answer(
          m_engine->SetAt(ZrCellStore{row, col, nullptr, capacity, offset, version, bytes, size}));
}

unsigned int ZrCompactFile::SetAt(unsigned int row, unsigned int col,
                                  const PelmUnicodeString& filePath, unsigned long long version) {
  return Call(*m_engine, kStoring).Answer(m_engine->SetAt(row, col, filePath, version));
}

unsigned int ZrCompactFile::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                   unsigned long long& filledLength, unsigned long long version) {
  ZrVersion given;
  const unsigned int result = Lookup(row, col, data, given, version);
  filledLength = given.filledLength;
  return result;
}

unsigned int ZrCompactFile::Remove(unsigned int row, unsigned int col, unsigned long long version) {
  return Call(*m_engine, kRemoving).Answer(m_engine->Remove(row, col, version));
}

unsigned int ZrCompactFile::SetBatch(const std::vector<ZrCellStore>& stores,
                                     std::vector<unsigned int>& results) {
  return Call(*m_engine, kStoring).Answer(m_engine->SetBatch(stores, results));
}

bool ZrCompactFile::GetGridIdxValue(unsigned int row, unsigned int col,
                                    unsigned long long& value) const {
  return Call(*m_engine, kReading)
      .Answer(m_engine->GetGridIdxValue(row, col, value), ZrResult::kReadFailure);
}

ZrCompactFile::ZrStatus ZrCompactFile::GetStatus(unsigned int row, unsigned int col) const {
  unsigned long long value;
  if (!GetGridIdxValue(row, col, value)) return kUnknown;
  return static_cast<ZrStatus>(Format::StatusOf(value));
}

unsigned int ZrCompactFile::SetAt(const PelmUnicodeString& name, const ZrByteArray& data,
                                  unsigned long long capacity, unsigned long long offset,
                                  unsigned long long version) {
  return Call(*m_engine, kStoring)
      .Answer(m_engine->SetAt(Engine::NamedStore(name, data, capacity, offset, version)));
}

unsigned int ZrCompactFile::SetAt(const PelmUnicodeString& name, const void* bytes,
                                  unsigned long long size, unsigned long long capacity,
                                  unsigned long long offset, unsigned long long version) {
  return Call(*m_engine, kStoring)
      .Answer(m_engine->SetAt(Engine::NamedStore(
          name, Engine::BytesToStore(static_cast<const unsigned char*>(bytes), size), capacity,
          offset, version)));
}

unsigned int ZrCompactFile::SetAt(const PelmUnicodeString& name, const PelmUnicodeString& filePath,
                                  unsigned long long version) {
  return Call(*m_engine, kStoring).Answer(m_engine->SetAt(name, filePath, version));
}

unsigned int ZrCompactFile::SetBatch(const std::vector<ZrNameStore>& stores,
                                     std::vector<unsigned int>& results) {
  return Call(*m_engine, kStoring).Answer(m_engine->SetBatch(stores, results));
}

unsigned int ZrCompactFile::Lookup(const PelmUnicodeString& name, ZrByteArray& data,
                                   unsigned long long& filledLength, unsigned long long version) {
  ZrVersion given;
  const unsigned int result = Lookup(name, data, given, version);
  filledLength = given.filledLength;
  return result;
}

unsigned int ZrCompactFile::Remove(const PelmUnicodeString& name, unsigned long long version) {
  return Call(*m_engine, kRemoving).Answer(m_engine->Remove(name, version));
}

ZrCompactFile::ZrStatus ZrCompactFile::GetStatus(const PelmUnicodeString& name) {
  const Call call(*m_engine, kReading);
  const ZrStatus status = m_engine->GetStatus(name);
  call.Answer(status != kUnknown, ZrResult::kReadFailure);
  return status;
}

bool ZrCompactFile::GetValidNamingList(PelmArray<PelmUnicodeString>& names) {
  return Call(*m_engine, "list the names of")
      .Answer(m_engine->GetValidNamingList(names), ZrResult::kReadFailure);
}

unsigned int ZrCompactFile::GetVersions(unsigned int row, unsigned int col,
                                        std::vector<ZrVersion>& versions) {
  return Call(*m_engine, kListing).Answer(m_engine->GetVersions(row, col, versions));
}

unsigned int ZrCompactFile::GetVersions(const PelmUnicodeString& name,
                                        std::vector<ZrVersion>& versions) {
  return Call(*m_engine, kListing).Answer(m_engine->GetVersions(name, versions));
}

unsigned int ZrCompactFile::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                   ZrVersion& given, unsigned long long version) {
  return Call(*m_engine, kReading).Answer(m_engine->Lookup(row, col, data, given, version));
}

unsigned int ZrCompactFile::Lookup(const PelmUnicodeString& name, ZrByteArray& data,
                                   ZrVersion& given, unsigned long long version) {
  return Call(*m_engine, kReading).Answer(m_engine->Lookup(name, data, given, version));
}

unsigned int ZrCompactFile::RemoveAll(unsigned int row, unsigned int col) {
  return Call(*m_engine, kRemoving).Answer(m_engine->RemoveAll(row, col));
}

unsigned int ZrCompactFile::RemoveAll(const PelmUnicodeString& name) {
  return Call(*m_engine, kRemoving).Answer(m_engine->RemoveAll(name));
}

unsigned int ZrCompactFile::RemoveOlderThan(unsigned long long stamp, unsigned long long& removed) {
  return Call(*m_engine, kRemoving).Answer(m_engine->RemoveOlderThan(stamp, removed));
}

unsigned int ZrCompactFile::GetStatistics(ZrStatistics& statistics) {
  return Call(*m_engine, kCounting).Answer(m_engine->GetStatistics(statistics));
}

unsigned int ZrCompactFile::GetStatistics(ZrStatistics& statistics,
                                          const StatisticsProgress& progress) {
  return Call(*m_engine, kCounting).Answer(m_engine->GetStatistics(statistics, progress));
}

// The end of the tiles is no failure.
unsigned int ZrCompactFile::Step(Engine::TileWalk& walk) {
  const Call call(*m_engine, "walk over the tiles of");
  const unsigned int result = m_engine->Step(walk);
  return result == ZrResult::kNotFound ? result : call.Answer(result);
}

void ZrCompactFile::SwapByte(unsigned char& a, unsigned char& b) { std::swap(a, b); }

unsigned int ZrCompactFile::GenerateKey(const char16_t* password) {
  return Format::GenerateKey(password);
}

void ZrCompactFile::GenerateStream(unsigned char* state, int key) {
  Format::GenerateStream(state, static_cast<std::uint32_t>(key));
}

void ZrCompactFile::GenerateXorString(unsigned char* out, unsigned char* state) {
  Format::GenerateXorString(out, state);
}

void ZrCompactFile::ReMakeStream(unsigned char* buffer, int length, unsigned char* xorString) {
  Format::ReMakeStream(buffer, length, xorString);
}

}  // namespace Zarn
