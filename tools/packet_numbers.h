// Packet numbers chosen on the command line: "3", "3,5-9", "all".
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace tool {

class PacketNumbers {
 public:
  // Reads "all" or a comma-separated list of numbers (1 and up) and ranges
  // "FIRST-LAST" (FIRST <= LAST).  Returns false with `error` naming the
  // item that is neither.
  bool parse(const std::string &text, std::string &error);

  // Whether packet `number` is chosen.
  bool contains(std::size_t number) const;
  // Whether nothing is chosen (no --explain given).
  bool empty() const { return !all_ && ranges_.empty(); }
  bool all() const { return all_; }
  // The highest number chosen (0 for "all" or none).
  std::size_t highest() const;

 private:
  bool all_ = false;
  std::vector<std::pair<std::size_t, std::size_t>> ranges_;  // inclusive
};

}  // namespace tool
