// Helpers of the access rule tests: a readable description of a rule record,
// field-by-field comparison, and parsing from an exact-size copy of the text
// (so that AddressSanitizer catches any read past the terminating NUL).
#ifndef TEST_RULES_ACCESS_SUPPORT_H
#define TEST_RULES_ACCESS_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "nuvrules.h"
#include "testsupport.h"

namespace access_test {

// The caller-visible fields of ipaccess_rule, zero unless named, so that a
// test states only what matters: Rule{.policy = 1, .proto = 6}.
struct Rule {
  std::int32_t policy = 0;
  std::uint8_t proto = 0;
  std::uint32_t src_addr = 0;
  std::uint32_t src_mask = 0;
  std::int32_t src_op = 0;
  std::uint16_t src_port = 0;
  std::uint16_t src_port2 = 0;
  std::uint32_t dst_addr = 0;
  std::uint32_t dst_mask = 0;
  std::int32_t dst_op = 0;
  std::uint16_t dst_port = 0;
  std::uint16_t dst_port2 = 0;
  std::int32_t tcpflag = 0;
  std::int32_t connflag = 0;
  std::int32_t logging = 0;
  std::uint32_t used = 0;
};

inline ipaccess_rule to_record(const Rule &r) {
  ipaccess_rule rec;
  std::memset(&rec, 0, sizeof rec);
  rec.policy = r.policy;
  rec.proto = r.proto;
  rec.src_addr = r.src_addr;
  rec.src_mask = r.src_mask;
  rec.src_op = r.src_op;
  rec.src_port = r.src_port;
  rec.src_port2 = r.src_port2;
  rec.dst_addr = r.dst_addr;
  rec.dst_mask = r.dst_mask;
  rec.dst_op = r.dst_op;
  rec.dst_port = r.dst_port;
  rec.dst_port2 = r.dst_port2;
  rec.tcpflag = r.tcpflag;
  rec.connflag = r.connflag;
  rec.logging = r.logging;
  rec.used = r.used;
  return rec;
}

inline Rule from_record(const ipaccess_rule &rec) {
  return Rule{.policy = rec.policy,
              .proto = rec.proto,
              .src_addr = rec.src_addr,
              .src_mask = rec.src_mask,
              .src_op = rec.src_op,
              .src_port = rec.src_port,
              .src_port2 = rec.src_port2,
              .dst_addr = rec.dst_addr,
              .dst_mask = rec.dst_mask,
              .dst_op = rec.dst_op,
              .dst_port = rec.dst_port,
              .dst_port2 = rec.dst_port2,
              .tcpflag = rec.tcpflag,
              .connflag = rec.connflag,
              .logging = rec.logging,
              .used = rec.used};
}

// Compares every field, reserved words included (they must be zero).
inline void expect_record(const ipaccess_rule &actual, const Rule &expected) {
  for (std::uint32_t word : actual.reserved) EXPECT_EQ(word, 0u) << "reserved";
  EXPECT_EQ(actual.policy, expected.policy) << "policy";
  EXPECT_EQ(actual.proto, expected.proto) << "proto";
  EXPECT_EQ(actual.src_addr, expected.src_addr) << "src_addr";
  EXPECT_EQ(actual.src_mask, expected.src_mask) << "src_mask";
  EXPECT_EQ(actual.src_op, expected.src_op) << "src_op";
  EXPECT_EQ(actual.src_port, expected.src_port) << "src_port";
  EXPECT_EQ(actual.src_port2, expected.src_port2) << "src_port2";
  EXPECT_EQ(actual.dst_addr, expected.dst_addr) << "dst_addr";
  EXPECT_EQ(actual.dst_mask, expected.dst_mask) << "dst_mask";
  EXPECT_EQ(actual.dst_op, expected.dst_op) << "dst_op";
  EXPECT_EQ(actual.dst_port, expected.dst_port) << "dst_port";
  EXPECT_EQ(actual.dst_port2, expected.dst_port2) << "dst_port2";
  EXPECT_EQ(actual.tcpflag, expected.tcpflag) << "tcpflag";
  EXPECT_EQ(actual.connflag, expected.connflag) << "connflag";
  EXPECT_EQ(actual.logging, expected.logging) << "logging";
  EXPECT_EQ(actual.reserved2, 0u) << "reserved2";
  EXPECT_EQ(actual.used, expected.used) << "used";
}

struct Parsed {
  int rc;
  ipaccess_rule rule;
};

// Parses `text` from a heap copy of exactly its length plus the NUL, into a
// record pre-filled with garbage; checks that no platform memory leaks.
inline Parsed parse(std::string_view text) {
  testsupport::NoLeakGuard guard;
  std::unique_ptr<char[]> exact(new char[text.size() + 1]);
  std::memcpy(exact.get(), text.data(), text.size());
  exact[text.size()] = '\0';
  Parsed p;
  std::memset(&p.rule, 0xA5, sizeof p.rule);
  p.rc = ipaccess_parse(&p.rule, exact.get());
  return p;
}

}  // namespace access_test

#endif
