#pragma once

#include "Scramble.h"
#include "ZrCompactFile.h"
#include "ZrFile64.h"

namespace Zarn::Engine {

/// Checks a container by what its file says, and believes nothing of it: every number is tested
/// before it is used. The whole takes time in proportion to the length of the file, and some 32
/// bytes of memory per version and 16 per name that does not lie in a hole.
///
/// What cannot be told from something that writers leave is not reported; see docs/format.md.
///
/// While `progress` is called others may store tiles. A place where a record lies or lay gets no
/// other one, so what was seen before stays comparable.
///
/// kOk; kReadFailure if there were findings; kNotUsable if the progress function ended the check
/// before there were any. Throws std::bad_alloc.
unsigned int VerifyFile(const ZrFile64& file, const Format::XorString& xorString,
                        const ZrCompactFile::VerifyReport& report,
                        const ZrCompactFile::VerifyProgress& progress,
                        ZrCompactFile::ZrVerifySummary& summary);

}  // namespace Zarn::Engine
