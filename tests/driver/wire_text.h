// Bytes as tests type them, hexadecimal pairs and text between single quotes; and tables of such.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace zor::test {

inline std::string hexOf(std::string_view bytes) {
  std::string hex;
  for (const char byte : bytes) {
    for (const int digit : {(byte >> 4) & 15, byte & 15}) hex += "0123456789abcdef"[digit];
  }
  return hex;
}

/// What was typed, all of it in hexadecimal.
inline std::string hexTyped(std::string_view typed) {
  std::string hex;
  bool text = false;
  for (const char& c : typed) {
    if (text && c != '\'') hex += hexOf({&c, 1});
    if (!text && c != '\'' && c != ' ' && c != '\n') hex += c;
    if (c == '\'') text = !text;
  }
  return hex;
}

/// What was typed, as bytes.
inline std::string wire(std::string_view typed) {
  std::string bytes, hex = hexTyped(typed);
  for (std::size_t at = 0; at < hex.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

/// `value` as `size` little-endian bytes.
inline std::string le(std::uint64_t value, int size) {
  std::string bytes;
  for (; size > 0; --size, value >>= 8) bytes += static_cast<char>(value);
  return bytes;
}

/// The rows of a text, each ended by ";", and their cells, each but the last ended by " |".
inline std::vector<std::vector<std::string>> table(const std::string& text) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(text);
  for (std::string row; std::getline(lines >> std::ws, row, ';');) {
    rows.emplace_back();
    row.insert(0, " ");
    for (std::size_t at = 0, end = 0; end != row.npos; at = end + 2) {
      end = row.find(" |", at);
      const std::string cell = row.substr(at, end == row.npos ? end : end - at);
      const std::size_t first = std::min(cell.find_first_not_of(" \n"), cell.size());
      rows.back().push_back(cell.substr(first, cell.find_last_not_of(" \n") + 1 - first));
    }
  }
  return rows;
}

}  // namespace zor::test
