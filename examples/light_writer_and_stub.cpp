// Writes a grid file by the light writer, and goes on by a stub, which any thread may use.
//   light_writer_and_stub [FOLDER]

#include <ZrCompactFileManager.h>
#include <ZrCompactFileStub.h>
#include <ZrCompactFileWriter.h>
#include <ZrFile.h>

#include <atomic>
#include <string>
#include <thread>

using Zarn::ZrByteArray;
using Zarn::ZrResult;

namespace {

// One thread, one writer: no lock, no index in memory.
bool WriteFirst(const PelmUnicodeString& path) {
  Zarn::ZrCompactFileWriter writer;
  const unsigned int row = 0;
  return writer.Create(path, 128, 128, u"", 0) == ZrResult::kOk &&
         writer.SetAt(row, 0, ZrByteArray(&row, sizeof row), 0, 0, 1) == ZrResult::kOk;
}

bool Check(Zarn::ZrCompactFileStub& stub, unsigned int row) {
  ZrByteArray data;
  unsigned long long filled = 0;
  unsigned int stored = ~0U;
  return stub.Read(row, 0, data, filled, 1) && data.Read(stored) != 0 && stored == row;
}

// The manager keeps a stub for each of the last few scales and cells.
bool GoOn(const PelmUnicodeString& path) {
  Zarn::ZrCompactFileStub* stub = Zarn::ZrCompactFileManager::GetInstance()->LookUp(0.5, 3, 7);
  if (stub == nullptr) return false;
  stub->SetPath(path);
  std::atomic<int> good = 0;
  const auto store = [&](unsigned int row) {
    good += stub->Write(row, 0, ZrByteArray(&row, sizeof row), 0, 0, 1) && Check(*stub, row);
  };
  std::thread first(store, 1U), second(store, 2U);
  first.join();
  second.join();
  return good == 2 && Check(*stub, 0);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const PelmUnicodeString path = PelmUnicodeString::FromUtf8(folder + "/light_writer.cf");
  Zarn::ZrFile::Delete(path);
  const bool good = WriteFirst(path) && GoOn(path);
  Zarn::ZrFile::Delete(path);
  return good ? 0 : 1;
}
