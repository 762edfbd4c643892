// The exported view of the option format table: one format text per code.
#include <gtest/gtest.h>

#include <string>

#include "nuvdhcp.h"

TEST(DhcpOptionFormat, SingleAddressOptionsAreI) {
  EXPECT_EQ(std::string(dhcp_option_format(1)), "I");
  EXPECT_EQ(std::string(dhcp_option_format(54)), "I");
}

TEST(DhcpOptionFormat, RouterListIsIAAndStaticRoutesArePairs) {
  EXPECT_EQ(std::string(dhcp_option_format(3)), "IA");
  EXPECT_EQ(std::string(dhcp_option_format(33)), "IIA");
}

TEST(DhcpOptionFormat, HostNameAndVendorClassAreText) {
  EXPECT_EQ(std::string(dhcp_option_format(12)), "t");
  EXPECT_EQ(std::string(dhcp_option_format(60)), "t");
}

TEST(DhcpOptionFormat, LeaseTimeIsUnsigned32AndTimeOffsetSigned) {
  EXPECT_EQ(std::string(dhcp_option_format(51)), "L");
  EXPECT_EQ(std::string(dhcp_option_format(2)), "l");
}

TEST(DhcpOptionFormat, ParameterRequestListIsBytesAndMessageTypeAByte) {
  EXPECT_EQ(std::string(dhcp_option_format(55)), "BA");
  EXPECT_EQ(std::string(dhcp_option_format(53)), "B");
}

TEST(DhcpOptionFormat, VendorAndClientIdentifierOptionsAreOpaque) {
  EXPECT_EQ(std::string(dhcp_option_format(43)), "X");
  EXPECT_EQ(std::string(dhcp_option_format(61)), "X");
  EXPECT_EQ(std::string(dhcp_option_format(125)), "X");
}

TEST(DhcpOptionFormat, PadIsEmptyAndEndIsE) {
  EXPECT_EQ(std::string(dhcp_option_format(0)), "");
  EXPECT_EQ(std::string(dhcp_option_format(255)), "e");
}
