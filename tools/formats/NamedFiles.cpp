#include "NamedFiles.h"

#include <algorithm>
#include <vector>

#include "FileReader.h"
#include "FormatError.h"
#include "PelmUnicodeString.h"

namespace Formats {
namespace {

namespace fs = std::filesystem;

/// The walk, folder by folder.
class NamedFilesWalk {
 public:
  NamedFilesWalk(const std::function<bool(std::string_view, hx::Bytes)>& visit,
                 const Report& report)
      : m_visit(visit), m_report(report) {}

  bool VisitFolder(const fs::path& folder, const std::string& prefix) {
    for (const fs::directory_entry& entry : List(folder)) {
      const std::string name = prefix + entry.path().filename().native();
      std::error_code ignored;
      const bool isFolder = entry.is_directory(ignored);
      if (isFolder && entry.is_symlink(ignored))
        Tell(entry, "is a link to a folder");
      else if (!(isFolder ? VisitFolder(entry.path(), name + "/") : VisitFile(entry, name)))
        return false;
    }
    return true;
  }

 private:
  static std::vector<fs::directory_entry> List(const fs::path& folder) {
    std::error_code error;
    std::vector<fs::directory_entry> entries;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error))
      entries.push_back(*entry);
    if (error) throw FormatError(folder, "cannot be listed: " + error.message());
    std::sort(entries.begin(), entries.end());
    return entries;
  }

  void Tell(const fs::directory_entry& entry, const std::string& what) const {
    if (m_report) m_report(entry.path().string() + ": " + what);
  }

  bool VisitFile(const fs::directory_entry& entry, const std::string& name) {
    if (PelmUnicodeString::FromUtf8(name).ToUtf8() != name)
      Tell(entry, "has a name that is no UTF-8");
    else if (!m_file.Read(entry.path()))
      Tell(entry, m_file.GetFault());
    else if (m_file.GetBytes().empty())
      Tell(entry, "is empty");
    else
      return m_visit(name, m_file.GetBytes());
    return true;
  }

  const std::function<bool(std::string_view, hx::Bytes)>& m_visit;
  const Report& m_report;
  FileReader m_file;
};

}  // namespace

void VisitNamedFiles(const fs::path& folder,
                     const std::function<bool(std::string_view, hx::Bytes)>& visit,
                     const Report& report) {
  NamedFilesWalk(visit, report).VisitFolder(folder, "");
}

}  // namespace Formats
