#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "ZrByteArray.h"

namespace Zarn::Engine {

/// The record buffers of an object, one per thread that works on its tiles. The threads that have
/// one are the object's users: the last one to drop its buffer closes the file.
///
/// Threads: any thread may ask at any time for its own. Buffers are invalidated and dropped only
/// while no lookup runs.
class RecordBuffers {
 public:
  /// The calling thread's buffer, made on first use; null if memory is short. `swap`: its byte-swap
  /// switch, if the buffer was invalidated or is new.
  ZrByteArray* GetSwapData(bool swap);
  /// Whether the calling thread, or another one, uses the object.
  bool HasUsers() const;
  /// The calling thread is no user any more.
  void DropOwn();
  void DropAll();
  /// Makes every thread come by GetSwapData again.
  void Invalidate();

 private:
  mutable std::mutex m_mutex;                                           // guards the map
  std::map<std::uint32_t, std::unique_ptr<ZrByteArray>> m_mapSwapData;  // by thread
  // Of the threads with the lowest numbers, to be found without a lock.
  std::array<std::atomic<ZrByteArray*>, 64> m_known{};
};

}  // namespace Zarn::Engine
