// Record sizes that router code relies on.  The sizes are stated for the
// 32-bit target; on wider targets a record follows its pointer fields.
#include <gtest/gtest.h>

#include <cstddef>

#include "nikerkiog.h"

namespace {

constexpr bool kIs32BitTarget = sizeof(void *) == 4;

}  // namespace

// Each module adds the records whose size is part of its contract, in the form
//   TEST(RecordSizes, Name) { if (kIs32BitTarget) { EXPECT_EQ(sizeof(rec), N); } ... }
TEST(RecordSizes, TargetWidthIsKnown) {
  EXPECT_TRUE(sizeof(void *) == 4 || sizeof(void *) == 8);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(long), 4u);
  }
}

TEST(RecordSizes, DhcpOptionStore) {
  EXPECT_EQ(sizeof(dhcp_options) / sizeof(dhcp_option), 256u);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(dhcp_option), 8u);
    EXPECT_EQ(sizeof(dhcp_options), 2048u);
    EXPECT_EQ(sizeof(dhcp_memops), 12u);
  }
}

TEST(RecordSizes, DhcpConfigurationRecords) {
  EXPECT_EQ(sizeof(onlinecheckcfg_record), 32u);
  if (kIs32BitTarget) {
    EXPECT_EQ(sizeof(option_6rd), 24u);
    EXPECT_EQ(sizeof(dhcpoptions_value), 24u);
    EXPECT_EQ(sizeof(dhcpoptions_record), 32u);
  }
}
