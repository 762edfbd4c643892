#include "packet_numbers.h"

#include <algorithm>
#include <charconv>

namespace tool {
namespace {

// A packet number: decimal digits only, 1 and up.
bool read_number(const std::string &word, std::size_t &out) {
  if (word.empty()) return false;
  auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), out);
  return ec == std::errc() && end == word.data() + word.size() && out > 0;
}

}  // namespace

bool PacketNumbers::parse(const std::string &text, std::string &error) {
  if (text == "all") {
    all_ = true;
    return true;
  }
  std::size_t start = 0;
  while (true) {
    std::size_t comma = text.find(',', start);
    std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    std::size_t dash = item.find('-');
    std::size_t first = 0, last = 0;
    bool ok = dash == std::string::npos
                  ? read_number(item, first) && (last = first, true)
                  : read_number(item.substr(0, dash), first) && read_number(item.substr(dash + 1), last) && first <= last;
    if (!ok) {
      error = "not a packet number or range N-M: \"" + item + "\"";
      return false;
    }
    ranges_.emplace_back(first, last);
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

bool PacketNumbers::contains(std::size_t number) const {
  if (all_) return true;
  return std::any_of(ranges_.begin(), ranges_.end(),
                     [number](const auto &r) { return r.first <= number && number <= r.second; });
}

std::size_t PacketNumbers::highest() const {
  std::size_t high = 0;
  for (const auto &r : ranges_) high = std::max(high, r.second);
  return high;
}

}  // namespace tool
