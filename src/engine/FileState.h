#pragma once

#include <memory>

#include "FileMap.h"
#include "HeaderIo.h"
#include "IndexHeaders.h"
#include "IndexPages.h"
#include "NameTable.h"
#include "ZrFile64.h"

namespace Zarn::Engine {

/// All that an object knows of its file. It is built on the side and taken over as a whole.
struct FileState {
  std::shared_ptr<ZrFile64> file;
  Format::HeaderImage header{};  // in host order
  bool swap = false;
  Format::GridHeader grid;            // of a grid file
  Format::NamingHeader naming;        // of a naming file
  std::shared_ptr<IndexPages> index;  // null for a file of another kind
  std::shared_ptr<NameTable> names;   // of a naming file
  std::shared_ptr<Io::FileMap> map;   // if it was asked for
};

struct FileSource {
  const PelmUnicodeString& path;
  bool readOnly;
  bool mapped;    // for lookups
  bool isShared;  // with other processes, by the lock
  const Format::XorString& xorString;
  bool isOpen = false;  // `state` has the stream of the file that is at the path
};

/// Opens the file and reads its headers, in a number of calls that does not depend on its size.
/// What `state` holds is kept as far as it is still the file's: the stream; the index, which
/// forgets what it has loaded; and the names, to which only those are added that are new. Names
/// that are not known are read all. A file that cannot be opened for writing is opened for reading;
/// none is created.
///
/// kOk; kNotOpen; kWrongFile; kNotUsable for an index that does not lie in the file or whose memory
/// cannot be had. After a failure `state` is of no use.
unsigned int LoadFileState(const FileSource& source, FileState& state);

}  // namespace Zarn::Engine
