#pragma once

#include <cstddef>
#include <utility>
#include <vector>

/// Growable array of values.
template <typename T>
class PelmArray {
 public:
  /// How many values there are.
  std::size_t GetSize() const { return m_items.size(); }
  /// Whether there is none.
  bool IsEmpty() const { return m_items.empty(); }
  /// Appends a value; std::bad_alloc if memory is short.
  void Add(T item) { m_items.push_back(std::move(item)); }
  /// Removes all values.
  void RemoveAll() { m_items.clear(); }

  /// The value at `index`, which must be below the size.
  T& operator[](std::size_t index) { return m_items[index]; }
  /// The same.
  const T& operator[](std::size_t index) const { return m_items[index]; }

  /// For range-based loops.
  auto begin() { return m_items.begin(); }
  /// Behind the last value.
  auto end() { return m_items.end(); }
  /// For range-based loops.
  auto begin() const { return m_items.begin(); }
  /// Behind the last value.
  auto end() const { return m_items.end(); }

 private:
  std::vector<T> m_items;
};
