#include "ZrCacheFile.h"

#include <atomic>

namespace Zarn {
namespace {

constexpr std::uint32_t kFailure = 1;

std::atomic<ZrCacheFile::Factory> g_factory{nullptr};

}  // namespace

void ZrCacheFile::Register(Factory factory) { g_factory.store(factory); }

std::unique_ptr<ZrCacheFile> ZrCacheFile::Make() {
  const Factory factory = g_factory.load();
  std::unique_ptr<ZrCacheFile> made = factory != nullptr ? factory() : nullptr;
  return made != nullptr ? std::move(made) : std::make_unique<ZrCacheFile>();
}

std::uint32_t ZrCacheFile::Open(const PelmUnicodeString&, const PelmUnicodeString&, unsigned int) {
  return kFailure;
}

bool ZrCacheFile::Close() { return true; }

bool ZrCacheFile::IsOpen() const { return false; }

PelmUnicodeString ZrCacheFile::GetFullPath() const { return {}; }

std::uint32_t ZrCacheFile::GetStatus(ZrCacheFileStatus& status, std::uint32_t) {
  status = {};
  return kFailure;
}

// The one operation whose result is a truth value in a code's clothing: 0 is failure.
std::uint32_t ZrCacheFile::SetPassword(const PelmUnicodeString&) { return 0; }

std::uint32_t ZrCacheFile::Reconstruction() { return kFailure; }

std::uint32_t ZrCacheFile::ListFiles(PelmArray<PelmUnicodeString>&) { return kFailure; }

std::uint32_t ZrCacheFile::AddFile(const ZrByteArray&, const PelmUnicodeString&) {
  return kFailure;
}

std::uint32_t ZrCacheFile::AddFile(const PelmUnicodeString&, const PelmUnicodeString&) {
  return kFailure;
}

std::uint32_t ZrCacheFile::ReadFile(const PelmUnicodeString&, ZrByteArray&) { return kFailure; }

std::uint32_t ZrCacheFile::RemoveFile(const PelmUnicodeString&, std::uint32_t, std::uint32_t) {
  return kFailure;
}

}  // namespace Zarn
