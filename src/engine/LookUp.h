#pragma once

#include "Cause.h"
#include "Engine.h"

namespace Zarn::Engine {

/// Has `look(file, buffer)` look at the open file, without a lock if that is possible, else under
/// it: also if it answers false, for want of what only a refresh gives. False if the file cannot be
/// used.
///
/// `buffer` is the thread's record buffer; null without `usesBuffer`.
template <typename Look>
bool Engine::UseFile(Look look, bool usesBuffer) {
  {
    const Lookups::Visit visit(m_locks.GetLookups());
    OpenFile* const file = visit.GetFile();
    const bool hasBuffer = file != nullptr && usesBuffer;
    ZrByteArray* const buffer = hasBuffer ? m_buffers.GetSwapData(file->GetShape().swap) : nullptr;
    if (file != nullptr && (buffer != nullptr || !usesBuffer) && file->IsAtPath() &&
        look(*file, buffer))
      return true;
  }
  Io::ForgetFailure();
  const ReadOperation operation(m_locks, m_state);
  ZrByteArray* const buffer = operation.IsUsable() && usesBuffer ? GetSwapData() : nullptr;
  return operation.IsUsable() && (buffer != nullptr || !usesBuffer) &&
         (File().HasIndex() || Io::Fail(ZrCause::kWrongKind)) && look(File(), buffer);
}

/// How every lookup goes: `attempt(file, view, buffer)` reads what it needs by the view, and
/// believes nothing; once the view is valid, `finish(file, buffer)` hands it to the caller. As
/// UseFile; an attempt that answers false needs the lock. What an attempt has noted of failures is
/// forgotten where another one follows.
template <typename Attempt, typename Finish>
bool Engine::LookUp(Attempt attempt, Finish finish, bool usesBuffer) {
  const auto look = [&](OpenFile& file, ZrByteArray* buffer) {
    View view(file.GetBoard(), *file.GetStream(), file.Map());
    while (view.Begin()) {
      if (!attempt(file, view, buffer)) return false;
      if (!file.Index().Check(view)) {
        Io::ForgetFailure();
        continue;
      }
      if (file.Names() != nullptr) file.Names()->KeepComplete(view);
      finish(file, buffer);
      return true;
    }
    return Io::FailUnlessBySystem(ZrCause::kInUse);
  };
  return UseFile(look, usesBuffer);
}

/// The same for the slot of a name: `use(file, slot, isFound)` is told what each attempt has found
/// (NameIndex::GetNamingIdxValue), and null in a file that has no names.
template <typename Use>
bool Engine::LookUpSlot(const PelmUnicodeString& name, Use use) {
  const auto attempt = [&](OpenFile& file, View& view, ZrByteArray* buffer) {
    NameIndex* const names = file.Names();
    if (names == nullptr) {
      use(file, nullptr, Io::Fail(ZrCause::kWrongKind));
      return true;
    }
    if (!names->IsComplete(view)) return false;
    NameSlot slot;
    TileStore tiles = file.MakeStore(*buffer);
    const bool isFound =
        names->GetNamingIdxValue(NameKey(name, file.GetShape()), tiles, slot, &view);
    view.UsesMore();
    use(file, &slot, isFound);
    return true;
  };
  return LookUp(attempt, [](OpenFile&, ZrByteArray*) {});
}

/// The same for one who reads much, of which not everything need be valid: `attempt(file, view)`
/// asks the view itself, and answers a TileWalk::Seen.
template <typename Attempt>
bool Engine::Survey(Attempt attempt) {
  const auto look = [&](OpenFile& file, ZrByteArray*) {
    View view(file.GetBoard(), *file.GetStream(), file.Map());
    auto seen = TileWalk::Seen::kAgain;
    while (seen == TileWalk::Seen::kAgain && view.Begin()) {
      Io::ForgetFailure();
      seen = attempt(file, view);
    }
    return seen == TileWalk::Seen::kDone || Io::FailUnlessBySystem(ZrCause::kInUse);
  };
  return UseFile(look, true);
}

}  // namespace Zarn::Engine
