#ifndef NUVDHCP_PRIV_H
#define NUVDHCP_PRIV_H
#include <cstdint>
namespace dp {
const char *dhcp_option_format(std::uint8_t code);
}
#endif
