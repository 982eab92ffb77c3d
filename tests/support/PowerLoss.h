#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

/// Records what the file classes do to the files of a folder, so that a test can put there what a
/// loss of power may leave at any moment: what was synced, and any pages of what was not. One
/// object at a time; copies and room had within the kernel, and stores through mappings, are
/// refused while it lives, so that every byte is seen.
class PowerLoss {
 public:
  /// Begins with the files that are in the folder now; they count as synced.
  explicit PowerLoss(std::string folder);
  ~PowerLoss();
  PowerLoss(const PowerLoss&) = delete;
  PowerLoss& operator=(const PowerLoss&) = delete;

  std::size_t CountSteps() const;
  /// From the n-th step on (0: the first) nothing is done any more: each call fails, as none is
  /// made after a process is killed.
  void StopAt(std::size_t step);
  void GoOn();
  /// Every write to the file of this name fails from the n-th on.
  void RefuseWrites(const std::string& name, std::size_t n);
  /// Makes the folder what it may be if the power is lost before the n-th step. `keep` says of each
  /// step that was not synced, and of each page of a write, whether it reached the disk. Call it
  /// when nothing is open.
  void Leave(std::size_t step, const std::function<bool()>& keep);

 private:
  std::string m_folder;
};
