#include "ZrCompactFile.h"

#include <utility>

#include "Engine.h"
#include "Scramble.h"

namespace Zarn {

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
  return m_engine->Create(path, rows, cols, password, mode);
}

unsigned int ZrCompactFile::Create(const PelmUnicodeString& path, unsigned long long capacity,
                                   const PelmUnicodeString& password, ZrOpenMode mode) {
  return m_engine->Create(path, capacity, password, mode);
}

unsigned int ZrCompactFile::Open(const PelmUnicodeString& path, const PelmUnicodeString& password,
                                 ZrOpenMode mode) {
  return m_engine->Open(path, password, mode);
}

bool ZrCompactFile::Close() { return m_engine->Close(); }
bool ZrCompactFile::IsOpen() const { return m_engine->IsOpen(); }
bool ZrCompactFile::Flush() { return m_engine->Flush(); }
PelmUnicodeString ZrCompactFile::GetFullPath() const { return m_engine->GetFullPath(); }
void ZrCompactFile::SetMaxSize(double first, double second) { m_engine->SetMaxSize(first, second); }
bool ZrCompactFile::IsVersionEnabled() const { return m_engine->IsVersionEnabled(); }
bool ZrCompactFile::IsDeadLocked() const { return isLocked(); }

unsigned int ZrCompactFile::GetIndexInfo(unsigned int& first, unsigned int& second) const {
  return m_engine->GetIndexInfo(first, second);
}

unsigned int ZrCompactFile::SetPassword(const PelmUnicodeString& password) {
  return m_engine->SetPassword(password);
}

unsigned int ZrCompactFile::Compact() { return m_engine->Compact(CompactProgress()); }

unsigned int ZrCompactFile::Compact(const CompactProgress& progress) {
  return m_engine->Compact(progress);
}

unsigned int ZrCompactFile::Verify(ZrVerifySummary& summary) {
  return m_engine->Verify(summary, VerifyReport(), VerifyProgress());
}

unsigned int ZrCompactFile::Verify(ZrVerifySummary& summary, const VerifyReport& report,
                                   const VerifyProgress& progress) {
  return m_engine->Verify(summary, report, progress);
}

unsigned int ZrCompactFile::SetAt(unsigned int row, unsigned int col, const ZrByteArray& data,
                                  unsigned long long capacity, unsigned long long offset,
                                  unsigned long long version) {
  return m_engine->SetAt({row, col, &data, capacity, offset, version});
}

unsigned int ZrCompactFile::SetAt(unsigned int row, unsigned int col,
                                  const PelmUnicodeString& filePath, unsigned long long version) {
  return m_engine->SetAt(row, col, filePath, version);
}

unsigned int ZrCompactFile::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                   unsigned long long& filledLength, unsigned long long version) {
  ZrVersion given;
  const unsigned int result = m_engine->Lookup(row, col, data, given, version);
  filledLength = given.filledLength;
  return result;
}

unsigned int ZrCompactFile::Remove(unsigned int row, unsigned int col, unsigned long long version) {
  return m_engine->Remove(row, col, version);
}

unsigned int ZrCompactFile::SetBatch(const std::vector<ZrCellStore>& stores,
                                     std::vector<unsigned int>& results) {
  return m_engine->SetBatch(stores, results);
}

bool ZrCompactFile::GetGridIdxValue(unsigned int row, unsigned int col,
                                    unsigned long long& value) const {
  return m_engine->GetGridIdxValue(row, col, value);
}

ZrCompactFile::ZrStatus ZrCompactFile::GetStatus(unsigned int row, unsigned int col) const {
  unsigned long long value;
  if (!m_engine->GetGridIdxValue(row, col, value)) return kUnknown;
  return static_cast<ZrStatus>(Format::StatusOf(value));
}

unsigned int ZrCompactFile::SetAt(const PelmUnicodeString& name, const ZrByteArray& data,
                                  unsigned long long capacity, unsigned long long offset,
                                  unsigned long long version) {
  return m_engine->SetAt(name, data, capacity, offset, version);
}

unsigned int ZrCompactFile::SetAt(const PelmUnicodeString& name, const PelmUnicodeString& filePath,
                                  unsigned long long version) {
  return m_engine->SetAt(name, filePath, version);
}

unsigned int ZrCompactFile::SetBatch(const std::vector<ZrNameStore>& stores,
                                     std::vector<unsigned int>& results) {
  return m_engine->SetBatch(stores, results);
}

unsigned int ZrCompactFile::Lookup(const PelmUnicodeString& name, ZrByteArray& data,
                                   unsigned long long& filledLength, unsigned long long version) {
  ZrVersion given;
  const unsigned int result = m_engine->Lookup(name, data, given, version);
  filledLength = given.filledLength;
  return result;
}

unsigned int ZrCompactFile::Remove(const PelmUnicodeString& name, unsigned long long version) {
  return m_engine->Remove(name, version);
}

ZrCompactFile::ZrStatus ZrCompactFile::GetStatus(const PelmUnicodeString& name) {
  return m_engine->GetStatus(name);
}

bool ZrCompactFile::GetValidNamingList(PelmArray<PelmUnicodeString>& names) {
  return m_engine->GetValidNamingList(names);
}

unsigned int ZrCompactFile::GetVersions(unsigned int row, unsigned int col,
                                        std::vector<ZrVersion>& versions) {
  return m_engine->GetVersions(row, col, versions);
}

unsigned int ZrCompactFile::GetVersions(const PelmUnicodeString& name,
                                        std::vector<ZrVersion>& versions) {
  return m_engine->GetVersions(name, versions);
}

unsigned int ZrCompactFile::Lookup(unsigned int row, unsigned int col, ZrByteArray& data,
                                   ZrVersion& given, unsigned long long version) {
  return m_engine->Lookup(row, col, data, given, version);
}

unsigned int ZrCompactFile::Lookup(const PelmUnicodeString& name, ZrByteArray& data,
                                   ZrVersion& given, unsigned long long version) {
  return m_engine->Lookup(name, data, given, version);
}

unsigned int ZrCompactFile::RemoveAll(unsigned int row, unsigned int col) {
  return m_engine->RemoveAll(row, col);
}

unsigned int ZrCompactFile::RemoveAll(const PelmUnicodeString& name) {
  return m_engine->RemoveAll(name);
}

unsigned int ZrCompactFile::RemoveOlderThan(unsigned long long stamp, unsigned long long& removed) {
  return m_engine->RemoveOlderThan(stamp, removed);
}

unsigned int ZrCompactFile::GetStatistics(ZrStatistics& statistics) {
  return m_engine->GetStatistics(statistics);
}

unsigned int ZrCompactFile::GetStatistics(ZrStatistics& statistics,
                                          const StatisticsProgress& progress) {
  return m_engine->GetStatistics(statistics, progress);
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
