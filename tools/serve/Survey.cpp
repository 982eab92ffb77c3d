#include "Survey.h"

#include <algorithm>

namespace Serve {

void Field::Add(const Field& other) {
  tiles += other.tiles;
  versions += other.versions;
  bytes += other.bytes;
}

void HeatMap::Add(std::uint32_t row, std::uint32_t col, const Field& tile) {
  m_fields[KeyOf(row >> m_shift, col >> m_shift)].Add(tile);
  if (m_fields.size() <= kMostFields) return;
  ++m_shift;
  std::unordered_map<std::uint64_t, Field> larger;
  for (const auto& [key, field] : m_fields)
    larger[KeyOf(static_cast<std::uint32_t>(key >> 32) >> 1, static_cast<std::uint32_t>(key) >> 1)]
        .Add(field);
  m_fields.swap(larger);
}

HeatMap::Picture HeatMap::Draw(std::uint32_t size) const {
  Picture picture;
  if (m_fields.empty()) return picture;
  // A field of 2^32 cells is as large as any grid, and is shifted by 32.
  std::uint64_t firstRow = UINT32_MAX, lastRow = 0, firstCol = UINT32_MAX, lastCol = 0;
  for (const auto& [key, field] : m_fields) {
    const std::uint64_t row = key >> 32, col = key & UINT32_MAX;
    firstRow = std::min(firstRow, row);
    lastRow = std::max(lastRow, row);
    firstCol = std::min(firstCol, col);
    lastCol = std::max(lastCol, col);
  }
  int shift = 0;
  while (std::max((lastRow >> shift) - (firstRow >> shift),
                  (lastCol >> shift) - (firstCol >> shift)) >= size)
    ++shift;
  firstRow >>= shift;
  firstCol >>= shift;
  picture.step = std::uint64_t{1} << (shift + m_shift);
  picture.rows = static_cast<std::uint32_t>((lastRow >> shift) - firstRow + 1);
  picture.cols = static_cast<std::uint32_t>((lastCol >> shift) - firstCol + 1);
  picture.firstRow = static_cast<std::uint32_t>(firstRow << (shift + m_shift));
  picture.firstCol = static_cast<std::uint32_t>(firstCol << (shift + m_shift));
  picture.fields.resize(std::size_t{picture.rows} * picture.cols);
  for (const auto& [key, field] : m_fields) {
    const std::uint64_t row = (key >> 32 >> shift) - firstRow;
    const std::uint64_t col = ((key & UINT32_MAX) >> shift) - firstCol;
    picture.fields[row * picture.cols + col].Add(field);
  }
  return picture;
}

void Level::Add(std::uint32_t row, std::uint32_t col, const Field& tile) {
  sum.Add(tile);
  firstRow = std::min(firstRow, row);
  lastRow = std::max(lastRow, row);
  firstCol = std::min(firstCol, col);
  lastCol = std::max(lastCol, col);
  heat.Add(row, col, tile);
}

}  // namespace Serve
