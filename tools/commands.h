// The commands of the tool, each returning the exit status.
#pragma once

#include <string>
#include <vector>

#include "packet_numbers.h"

namespace tool {

// nikerkiog describe CAPTURE...
int run_describe(const std::vector<std::string> &captures, bool json);

// nikerkiog dhcp CAPTURE...
int run_dhcp(const std::vector<std::string> &captures, bool json);

struct ClassifyOptions {
  std::string rules;
  std::vector<std::string> captures;
  std::string device = "eth0";
  std::string bridge = "br0";
  bool optimise = false;
  bool json = false;
  bool keep_going = false;           // use the accepted lines of a rule file with errors
  PacketNumbers explain;             // packets to explain
  std::string live;                  // interface to capture on, instead of files
  std::size_t count = 0;             // live: stop after this many packets (0: no limit)
  double seconds = 0;                // live: stop after this many seconds (0: no limit)
  bool kernel = false;               // also run every frame through the kernel program and compare
};

// nikerkiog classify RULES CAPTURE... / --live IFACE
int run_classify(const ClassifyOptions &options);

// Which rule language a check reads.
enum class RuleLanguage { kClassifier, kAccess, kMasquerade, kIp6Forward };

struct CheckOptions {
  RuleLanguage language = RuleLanguage::kClassifier;
  std::vector<std::string> files;
  bool print = false;
  bool json = false;
  bool werror = false;  // warnings count as errors
};

// nikerkiog check RULES..., acl/masq/ip6fw check FILE...
int run_check(const CheckOptions &options);

// nikerkiog keywords: the classifier's keywords, value syntax and examples.
int run_keywords(bool json);

}  // namespace tool
