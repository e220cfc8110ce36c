// The lines of a text file, without their newlines (none if it is missing).
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace test_support {

inline std::vector<std::string> read_lines(const std::filesystem::path &file) {
  std::ifstream in(file);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace test_support
