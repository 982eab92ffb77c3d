#pragma once

#include <cstddef>
#include <utility>
#include <vector>

/// Growable array of values.
template <typename T>
class PelmArray {
 public:
  std::size_t GetSize() const { return m_items.size(); }
  bool IsEmpty() const { return m_items.empty(); }
  void Add(T item) { m_items.push_back(std::move(item)); }
  void RemoveAll() { m_items.clear(); }

  T& operator[](std::size_t index) { return m_items[index]; }
  const T& operator[](std::size_t index) const { return m_items[index]; }

  auto begin() { return m_items.begin(); }
  auto end() { return m_items.end(); }
  auto begin() const { return m_items.begin(); }
  auto end() const { return m_items.end(); }

 private:
  std::vector<T> m_items;
};
