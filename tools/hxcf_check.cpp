// Checks a compact file and prints what is wrong in it, and what it holds. Ends with 0 if it is
// sound, 1 if not, 2 if it cannot be opened or checked.

#include <cstdio>

#include "ZrCompactFile.h"
#include "ZrFile.h"

using Zarn::ZrCompactFile;

namespace {

constexpr int kSound = 0, kDamaged = 1, kNotChecked = 2;

void Print(const ZrCompactFile::ZrFinding& finding, bool isGrid) {
  using Finding = ZrCompactFile::ZrFinding;
  std::printf("byte %llu: ", finding.position);
  if (finding.kind >= Finding::kEntry) {
    if (isGrid)
      std::printf("cell %u, %u: ", finding.row, finding.col);
    else
      std::printf("slot %llu: ", finding.number);
  }
  if (finding.kind == Finding::kVersion) std::printf("version %llu: ", finding.version);
  std::printf("%s\n", finding.message);
}

void Print(const ZrCompactFile::ZrVerifySummary& summary) {
  std::printf("%llu tiles, %llu versions; bytes: index %llu, live %llu, dead %llu\n", summary.tiles,
              summary.versions, summary.indexBytes, summary.liveBytes, summary.deadBytes);
  if (summary.unwrittenBytes != 0)
    std::printf("the last tile cannot be read until another one has been stored\n");
  std::printf("%llu findings\n", summary.findings);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) {
    std::fprintf(stderr, "usage: %s FILE [PASSWORD]\n", argv[0]);
    return kNotChecked;
  }
  auto path = PelmUnicodeString::FromUtf8(argv[1]);
  if (Zarn::ZrFile::GetExt(path).IsEmpty()) path = path + u".cf";
  const auto password = PelmUnicodeString::FromUtf8(argc == 3 ? argv[2] : "");
  // A missing file would be made.
  ZrCompactFile file;
  const unsigned int opened =
      Zarn::ZrFile::IsExist(path)
          ? file.Open(path, password, ZrCompactFile::kReadOnly | ZrCompactFile::kProcessLock)
          : Zarn::ZrResult::kNotFound;
  if (opened != Zarn::ZrResult::kOk) {
    std::fprintf(stderr, "%s: not opened, result %u\n", argv[1], opened);
    return kNotChecked;
  }
  unsigned int first = 0, second = 0;
  const bool isGrid = file.GetIndexInfo(first, second) == 0;
  ZrCompactFile::ZrVerifySummary summary;
  const unsigned int result =
      file.Verify(summary, [isGrid](const ZrCompactFile::ZrFinding& finding) {
        Print(finding, isGrid);
        return true;
      });
  Print(summary);
  if (result == Zarn::ZrResult::kOk) return kSound;
  return summary.findings != 0 ? kDamaged : kNotChecked;
}
