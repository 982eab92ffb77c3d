// Two processes store into one file at the same time; both open it with kProcessLock.
//   two_processes [FOLDER]

#include <ZrCompactFile.h>
#include <ZrFile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

using Zarn::ZrByteArray;
using Zarn::ZrCompactFile;
using Zarn::ZrResult;

namespace {

constexpr unsigned int kTiles = 100;

// Every other tile: one process takes the even ones, one the odd ones.
bool StoreHalf(ZrCompactFile& file, unsigned int first) {
  for (unsigned int col = first; col < kTiles; col += 2)
    if (file.SetAt(0, col, ZrByteArray(&col, sizeof col), 0, 0, 1) != ZrResult::kOk) return false;
  return true;
}

bool ReadAll(ZrCompactFile& file) {
  ZrByteArray data;
  unsigned long long filled = 0;
  for (unsigned int col = 0; col < kTiles; ++col) {
    unsigned int stored = kTiles;
    if (file.Lookup(0, col, data, filled, 1) != ZrResult::kOk) return false;
    if (data.Read(stored) == 0 || stored != col) return false;
  }
  return true;
}

bool Share(ZrCompactFile& file, const PelmUnicodeString& path) {
  const pid_t child = ::fork();
  if (child == 0) {
    ZrCompactFile own;  // a child must not touch its parent's
    const unsigned int result = own.Open(path, u"", ZrCompactFile::kProcessLock);
    ::_exit(result == ZrResult::kOk && StoreHalf(own, 1) ? 0 : 1);
  }
  const bool stored = StoreHalf(file, 0);
  int status = 1;
  return ::waitpid(child, &status, 0) == child && status == 0 && stored && ReadAll(file);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const PelmUnicodeString path = PelmUnicodeString::FromUtf8(folder + "/two_processes.cf");
  const auto mode = ZrCompactFile::kReplace | ZrCompactFile::kProcessLock;
  ZrCompactFile file;
  const bool good = file.Create(path, 1, kTiles, u"", mode) == ZrResult::kOk && Share(file, path);
  Zarn::ZrFile::Delete(path);
  return good ? 0 : 1;
}
