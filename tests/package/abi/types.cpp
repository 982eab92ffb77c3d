// The types of the public headers as variables, for abidiff follows functions only, and not into the
// standard library's templates.
#include <ZrCacheFile.h>
#include <ZrCompactFile.h>
#include <ZrCompactFileCollection.h>
#include <ZrCompactFileManager.h>
#include <ZrCompactFileReader.h>
#include <ZrCompactFileStub.h>
#include <ZrCompactFileWriter.h>
#include <ZrError.h>
#include <ZrNewFile.h>
#include <ZrTileCursor.h>

#pragma GCC visibility push(default)
Zarn::ZrResult::Code resultCode;
Zarn::ZrCause cause;
Zarn::ZrError error;
Zarn::ZrCompactFile::ZrStatus status;
Zarn::ZrCellStore cellStore;
Zarn::ZrNameStore nameStore;
Zarn::ZrVerifyFinding verifyFinding;
Zarn::ZrVerifySummary verifySummary;
Zarn::ZrVersion version;
Zarn::ZrStatistics statistics;
Zarn::ZrTileCursor::Content content;
Zarn::ZrCacheFileStatus cacheFileStatus;

Zarn::ZrCompactFile compactFile;
Zarn::ZrCompactFileReader reader;
Zarn::ZrCompactFileWriter writer;
Zarn::ZrCompactFileStub stub;
Zarn::ZrByteArray bytes;
PelmUnicodeString text;
PelmMBString letters;
