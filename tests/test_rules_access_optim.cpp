// Access rules: canonical form and presence bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "nuvrules.h"
#include "test_rules_access_support.h"

using access_test::expect_record;
using access_test::Rule;
using access_test::to_record;

namespace {

ipaccess_rule optimised(const Rule &r) {
  ipaccess_rule rec = to_record(r);
  ipaccess_optim_rulestruct(&rec);
  return rec;
}

// A TCP rule with the given destination condition, optimised.
ipaccess_rule tcp_destination(std::int32_t op, std::uint16_t low, std::uint16_t high) {
  return optimised(Rule{.policy = 1, .proto = 6, .dst_op = op, .dst_port = low, .dst_port2 = high});
}

}  // namespace

// ---- range reduction ----

TEST(AccessOptimRange, RangeToTheTopBecomesGreaterOrEqual) {
  expect_record(tcp_destination(7, 1024, 65535),
                Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_GE, .dst_port = 1024, .used = 0x21});
}

TEST(AccessOptimRange, RangeFromZeroBecomesLessOrEqual) {
  expect_record(tcp_destination(7, 0, 80), Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_LE, .dst_port = 80, .used = 0x21});
}

// Such a record cannot come from a rule line, which refuses port 0.
TEST(AccessOptimRange, RangeFromZeroIsNotWritable) {
  EXPECT_EQ(access_test::parse("permit tcp any any range 0 80").rc, IPACCESS_E_BAD_DST_PORT);
}

TEST(AccessOptimRange, RangeOfOnePortBecomesEqual) {
  expect_record(tcp_destination(7, 80, 80), Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_EQ, .dst_port = 80, .used = 0x21});
}

TEST(AccessOptimRange, ReversedRangeIsOrdered) {
  expect_record(tcp_destination(7, 2000, 1000),
                Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_RANGE, .dst_port = 1000, .dst_port2 = 2000, .used = 0x21});
}

TEST(AccessOptimRange, RangeOfEveryPortIsDropped) {
  expect_record(tcp_destination(7, 0, 65535), Rule{.policy = 1, .proto = 6, .used = 0x01});
  expect_record(tcp_destination(7, 65535, 0), Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_EQ, .dst_port = 65535,
                                                   .used = 0x21});
}

TEST(AccessOptimRange, MissingUpperBoundMeansEqual) {
  expect_record(tcp_destination(7, 443, 0), Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_EQ, .dst_port = 443, .used = 0x21});
}

TEST(AccessOptimRange, EmptyRangeIsDropped) {
  expect_record(tcp_destination(7, 0, 0), Rule{.policy = 1, .proto = 6, .used = 0x01});
}

TEST(AccessOptimRange, ReversedRangeToTheTopBecomesGreaterOrEqual) {
  expect_record(tcp_destination(7, 65535, 5000),
                Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_GE, .dst_port = 5000, .used = 0x21});
}

TEST(AccessOptimRange, ReversedRangeFromZeroBecomesLessOrEqual) {
  // An upper bound of 0 wins before the bounds are ordered: "eq".
  expect_record(tcp_destination(7, 90, 0), Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_EQ, .dst_port = 90, .used = 0x21});
}

TEST(AccessOptimRange, OrdinaryRangeStays) {
  expect_record(tcp_destination(7, 5060, 5080),
                Rule{.policy = 1, .proto = 6, .dst_op = IPACCESS_OP_RANGE, .dst_port = 5060, .dst_port2 = 5080, .used = 0x21});
}

TEST(AccessOptimRange, SourceRangeIsReducedTheSameWay) {
  expect_record(optimised(Rule{.proto = 17, .src_op = IPACCESS_OP_RANGE, .src_port = 2000, .src_port2 = 65535}),
                Rule{.proto = 17, .src_op = IPACCESS_OP_GE, .src_port = 2000, .used = 0x11});
  expect_record(optimised(Rule{.proto = 17, .src_op = IPACCESS_OP_RANGE, .src_port = 9, .src_port2 = 3}),
                Rule{.proto = 17, .src_op = IPACCESS_OP_RANGE, .src_port = 3, .src_port2 = 9, .used = 0x11});
  expect_record(optimised(Rule{.proto = 17, .src_op = IPACCESS_OP_RANGE, .src_port = 0, .src_port2 = 65535}),
                Rule{.proto = 17, .used = 0x01});
}

TEST(AccessOptimRange, UpperBoundIsClearedForOtherOperators) {
  for (std::int32_t op = 0; op <= 6; ++op) {
    ipaccess_rule rec = optimised(
        Rule{.proto = 6, .src_op = op, .src_port = 10, .src_port2 = 20, .dst_op = op, .dst_port = 30, .dst_port2 = 40});
    EXPECT_EQ(rec.src_port, 10) << op;
    EXPECT_EQ(rec.src_port2, 0) << op;
    EXPECT_EQ(rec.dst_port, 30) << op;
    EXPECT_EQ(rec.dst_port2, 0) << op;
    EXPECT_EQ(rec.src_op, op);
    EXPECT_EQ(rec.dst_op, op);
  }
}

// ---- ICMP types ----

TEST(AccessOptimIcmp, DestinationRangeEndingAboveTheLastTypeBecomesGreaterOrEqual) {
  expect_record(optimised(Rule{.proto = 1, .dst_op = IPACCESS_OP_RANGE, .dst_port = 3, .dst_port2 = 300}),
                Rule{.proto = 1, .dst_op = IPACCESS_OP_GE, .dst_port = 3, .used = 0x21});
}

TEST(AccessOptimIcmp, SourceTypeAboveTheLastIsClamped) {
  expect_record(optimised(Rule{.proto = 1, .src_op = IPACCESS_OP_EQ, .src_port = 300}),
                Rule{.proto = 1, .src_op = IPACCESS_OP_EQ, .src_port = 255, .used = 0x11});
}

TEST(AccessOptimIcmp, DestinationTypeAboveTheLastIsClamped) {
  expect_record(optimised(Rule{.proto = 1, .dst_op = IPACCESS_OP_GT, .dst_port = 4000}),
                Rule{.proto = 1, .dst_op = IPACCESS_OP_GT, .dst_port = 255, .used = 0x21});
}

TEST(AccessOptimIcmp, DestinationUpperBoundAboveTheLastIsDroppedOutsideRanges) {
  expect_record(optimised(Rule{.proto = 1, .dst_op = IPACCESS_OP_EQ, .dst_port = 8, .dst_port2 = 999}),
                Rule{.proto = 1, .dst_op = IPACCESS_OP_EQ, .dst_port = 8, .used = 0x21});
}

TEST(AccessOptimIcmp, SourceRangeOfEveryTypeIsDropped) {
  expect_record(optimised(Rule{.proto = 1, .src_op = IPACCESS_OP_RANGE, .src_port = 0, .src_port2 = 700}), Rule{.proto = 1, .used = 0x01});
}

TEST(AccessOptimIcmp, ReversedSourceRangeAboveTheLastTypeBecomesGreaterOrEqual) {
  expect_record(optimised(Rule{.proto = 1, .src_op = IPACCESS_OP_RANGE, .src_port = 1000, .src_port2 = 8}),
                Rule{.proto = 1, .src_op = IPACCESS_OP_GE, .src_port = 8, .used = 0x11});
}

TEST(AccessOptimIcmp, TcpPortsAboveTheLastIcmpTypeAreNotClamped) {
  expect_record(optimised(Rule{.proto = 6, .src_op = IPACCESS_OP_EQ, .src_port = 300, .dst_op = IPACCESS_OP_EQ, .dst_port = 400}),
                Rule{.proto = 6, .src_op = IPACCESS_OP_EQ, .src_port = 300, .dst_op = IPACCESS_OP_EQ, .dst_port = 400, .used = 0x31});
}

// ---- protocols without ports ----

TEST(AccessOptimOtherProtocols, OperatorsGoButPortValuesStay) {
  expect_record(optimised(Rule{.policy = 1, .proto = 47, .src_op = IPACCESS_OP_EQ, .src_port = 1723, .src_port2 = 5,
                               .dst_op = IPACCESS_OP_RANGE, .dst_port = 9, .dst_port2 = 3}),
                Rule{.policy = 1, .proto = 47, .src_port = 1723, .src_port2 = 5, .dst_port = 9, .dst_port2 = 3,
                     .used = 0x01});
}

TEST(AccessOptimOtherProtocols, AnyProtocolHasNoPortConditions) {
  expect_record(optimised(Rule{.proto = IPACCESS_PROTO_ANY, .dst_op = IPACCESS_OP_EQ, .dst_port = 53}), Rule{.proto = IPACCESS_PROTO_ANY, .dst_port = 53});
}

TEST(AccessOptimOtherProtocols, OnlyTcpUdpAndIcmpKeepPortConditions) {
  for (int proto = 0; proto < 256; ++proto) {
    ipaccess_rule rec = optimised(Rule{.proto = static_cast<std::uint8_t>(proto), .dst_op = IPACCESS_OP_EQ, .dst_port = 53});
    bool keeps = proto == 1 || proto == 6 || proto == 17;
    EXPECT_EQ(rec.dst_op, keeps ? IPACCESS_OP_EQ : IPACCESS_OP_NONE) << proto;
    EXPECT_EQ(rec.used & IPACCESS_USED_DST_PORT, keeps ? IPACCESS_USED_DST_PORT : 0u) << proto;
  }
}

// ---- presence bits ----

TEST(AccessOptimBits, AnyRuleWithoutConditionsHasNoBits) {
  EXPECT_EQ(optimised(Rule{.policy = 1, .proto = IPACCESS_PROTO_ANY}).used, 0u);
}

TEST(AccessOptimBits, TcpRuleWithFlagAndDestinationHost) {
  EXPECT_EQ(optimised(Rule{.policy = 1, .proto = 6, .dst_addr = 0x0A000001, .dst_mask = 0xFFFFFFFF, .tcpflag = IPACCESS_TCPFLAG_ESTABLISHED})
                .used,
            IPACCESS_USED_PROTO | IPACCESS_USED_DST_ADDR | IPACCESS_USED_TCPFLAG);
}

TEST(AccessOptimBits, UdpRuleWithTcpFlagHasNoTcpFlagBit) {
  EXPECT_EQ(optimised(Rule{.proto = 17, .tcpflag = IPACCESS_TCPFLAG_ESTABLISHED}).used, IPACCESS_USED_PROTO);
}

TEST(AccessOptimBits, SourceMaskAndConnectionFlag) {
  EXPECT_EQ(optimised(Rule{.proto = IPACCESS_PROTO_ANY, .src_mask = 0xFF000000, .connflag = IPACCESS_CONN_INCOMING}).used, IPACCESS_USED_SRC_ADDR | IPACCESS_USED_CONNFLAG);
}

TEST(AccessOptimBits, EveryBit) {
  EXPECT_EQ(optimised(Rule{.proto = 6, .src_mask = 1, .src_op = IPACCESS_OP_NE, .src_port = 1, .dst_mask = 1, .dst_op = IPACCESS_OP_LT,
                           .dst_port = 2, .tcpflag = IPACCESS_TCPFLAG_CONNECT, .connflag = IPACCESS_CONN_OUTGOING})
                .used,
            IPACCESS_USED_PROTO | IPACCESS_USED_SRC_ADDR | IPACCESS_USED_DST_ADDR | IPACCESS_USED_CONNFLAG |
                IPACCESS_USED_SRC_PORT | IPACCESS_USED_DST_PORT | IPACCESS_USED_TCPFLAG);
}

TEST(AccessOptimBits, LoggingSetsNoBit) { EXPECT_EQ(optimised(Rule{.proto = IPACCESS_PROTO_ANY, .logging = 3}).used, 0u); }

TEST(AccessOptimBits, OldBitsAreOverwritten) {
  EXPECT_EQ(optimised(Rule{.proto = IPACCESS_PROTO_ANY, .used = 0xFFFFFFFF}).used, 0u);
}

TEST(AccessOptimBits, DroppedRangeLeavesThePortBitClear) {
  EXPECT_EQ(optimised(Rule{.proto = 6, .src_op = IPACCESS_OP_RANGE, .src_port = 0, .src_port2 = 65535}).used, IPACCESS_USED_PROTO);
}

// ---- against a plain reference ----

namespace {

struct Condition {
  std::int32_t op;
  std::uint16_t low;
  std::uint16_t high;
};

// The set of ports 0..ceiling a condition admits.
std::vector<bool> admitted(const Condition &c, unsigned ceiling) {
  std::vector<bool> set(ceiling + 1);
  for (unsigned p = 0; p <= ceiling; ++p) {
    switch (c.op) {
      case 0: set[p] = true; break;
      case 1: set[p] = p == c.low; break;
      case 4: set[p] = p <= c.low; break;
      case 6: set[p] = p >= c.low; break;
      case 7: set[p] = p >= c.low && p <= c.high; break;
      default: ADD_FAILURE() << "unexpected operator " << c.op;
    }
  }
  return set;
}

}  // namespace

// Over random ICMP ranges within 0..255 the reduced condition admits exactly
// the types of the ordered range, and a range survives only when no simpler
// operator says the same.
TEST(AccessOptimProperty, ReducedIcmpRangeAdmitsTheSameTypes) {
  std::mt19937 rng(4242);
  for (int i = 0; i < 3000; ++i) {
    auto low = static_cast<std::uint16_t>(rng() % 256);
    auto high = static_cast<std::uint16_t>(1 + rng() % 255);
    if (rng() % 4 == 0) low = 0;
    if (rng() % 4 == 0) high = 255;
    ipaccess_rule rec = optimised(Rule{.proto = 1, .dst_op = IPACCESS_OP_RANGE, .dst_port = low, .dst_port2 = high});
    Condition ordered{7, std::min(low, high), std::max(low, high)};
    EXPECT_EQ(admitted({rec.dst_op, rec.dst_port, rec.dst_port2}, 255), admitted(ordered, 255))
        << low << "-" << high;
    if (rec.dst_op == 7) {
      EXPECT_LT(rec.dst_port, rec.dst_port2);
      EXPECT_NE(rec.dst_port, 0);
      EXPECT_NE(rec.dst_port2, 255);
    } else {
      EXPECT_EQ(rec.dst_port2, 0);
    }
  }
}

TEST(AccessOptimProperty, OptimisingTwiceChangesNothing) {
  std::mt19937 rng(99);
  const std::uint8_t protos[] = {1, 6, 17, 47, 255, 0};
  for (int i = 0; i < 5000; ++i) {
    Rule r{.policy = static_cast<std::int32_t>(rng() % 4),
           .proto = protos[rng() % 6],
           .src_mask = static_cast<std::uint32_t>(rng() % 2),
           .src_op = static_cast<std::int32_t>(rng() % 8),
           .src_port = static_cast<std::uint16_t>(rng()),
           .src_port2 = static_cast<std::uint16_t>(rng() % 3 == 0 ? 0 : rng()),
           .dst_mask = static_cast<std::uint32_t>(rng() % 2),
           .dst_op = static_cast<std::int32_t>(rng() % 8),
           .dst_port = static_cast<std::uint16_t>(rng()),
           .dst_port2 = static_cast<std::uint16_t>(rng() % 3 == 0 ? 0 : rng()),
           .tcpflag = static_cast<std::int32_t>(rng() % 3),
           .connflag = static_cast<std::int32_t>(rng() % 6)};
    ipaccess_rule once = optimised(r);
    ipaccess_rule twice = once;
    ipaccess_optim_rulestruct(&twice);
    SCOPED_TRACE(i);
    expect_record(twice, access_test::from_record(once));
  }
}

namespace {

struct Interval {
  unsigned low;
  unsigned high;
  bool operator==(const Interval &) const = default;
};

// The ports 0..ceiling a normalised condition admits.
Interval interval_of(std::int32_t op, std::uint16_t port, unsigned ceiling) {
  switch (op) {
    case 0: return {0, ceiling};
    case 1: return {port, port};
    case 4: return {0, port};
    case 6: return {port, ceiling};
    default: ADD_FAILURE() << "unexpected operator " << op; return {1, 0};
  }
}

// What a written range [low, high] admits once its values are cut to the
// ceiling: an upper bound of 0 means a single port (or, with a lower bound of
// 0 too, no condition at all); otherwise the ordered range.
Interval reference_range(unsigned low, unsigned high, unsigned ceiling) {
  low = std::min(low, ceiling);
  high = std::min(high, ceiling);
  if (high == 0) return low == 0 ? Interval{0, ceiling} : Interval{low, low};
  return {std::min(low, high), std::max(low, high)};
}

}  // namespace

// Ranges on TCP, UDP and ICMP, source and destination: the normalised
// condition admits what the reference says, and a range is kept only where
// no single operator says the same.
TEST(AccessOptimProperty, ReducedRangesAdmitWhatTheReferenceAdmits) {
  std::mt19937 rng(5150);
  const std::uint8_t protos[] = {1, 6, 17};
  auto random_port = [&]() -> std::uint16_t {
    switch (rng() % 5) {
      case 0: return 0;
      case 1: return 65535;
      case 2: return static_cast<std::uint16_t>(rng() % 300);
      default: return static_cast<std::uint16_t>(rng());
    }
  };
  for (int i = 0; i < 20000; ++i) {
    std::uint8_t proto = protos[rng() % 3];
    unsigned ceiling = proto == 1 ? 255 : 65535;
    std::uint16_t sl = random_port(), sh = random_port(), dl = random_port(), dh = random_port();
    ipaccess_rule rec = optimised(
        Rule{.proto = proto, .src_op = IPACCESS_OP_RANGE, .src_port = sl, .src_port2 = sh, .dst_op = IPACCESS_OP_RANGE, .dst_port = dl, .dst_port2 = dh});
    SCOPED_TRACE(testing::Message() << int{proto} << " src " << sl << "-" << sh << " dst " << dl << "-" << dh);
    struct Side {
      std::int32_t op;
      std::uint16_t port, port2, low, high;
    } sides[] = {{rec.src_op, rec.src_port, rec.src_port2, sl, sh}, {rec.dst_op, rec.dst_port, rec.dst_port2, dl, dh}};
    for (const Side &s : sides) {
      Interval expected = reference_range(s.low, s.high, ceiling);
      if (s.op == 7) {
        EXPECT_EQ((Interval{s.port, s.port2}), expected);
        EXPECT_NE(s.port, 0);
        EXPECT_NE(s.port2, ceiling);
        EXPECT_LT(s.port, s.port2);
      } else {
        EXPECT_EQ(interval_of(s.op, s.port, ceiling), expected);
        EXPECT_EQ(s.port2, 0);
        if (s.op == 0) {
          EXPECT_EQ(s.port, 0);
        }
      }
    }
    if (HasFailure()) break;
  }
}
