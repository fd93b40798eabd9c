/**
 * @file
 * Netlink messages written as a person reads them, to be expected of a request or to answer one with:
 *
 *     message(RTM_NEWADDRLABEL, NLM_F_REQUEST | NLM_F_ACK,
 *             {"0a 00 40 00 03000000 00000000",          // ifaddrlblmsg: IPv6, /64, interface 3
 *              attr(IFAL_LABEL, 7), attr(IFAL_ADDRESS, "fe80 13*00 01")})
 *
 * Bytes are hexadecimal digits in the order in which they lie in memory. A word such as "13*00" stands for 13 zero
 * bytes; the count begins after a space or a bar. Spaces do not count otherwise. A bar is where a block of a request's
 * scatter list ends and the next begins. Lengths and padding are computed; what should be wrong is written out.
 */
#ifndef VESK_MESSAGES_H
#define VESK_MESSAGES_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace Vesk::Testing {

/// @addtogroup testing
/// @{

using Bytes  = std::vector<std::uint8_t>;          ///< A datagram, or a part of one.
using Blocks = std::initializer_list<std::string>; ///< Parts of a message, each as digits.

/// Digits with each "56*00" written out, and without spaces.
std::string spelledOut(const std::string& digits);

/// The bytes of digits; bars do not count.
Bytes hex(const std::string& digits);

/// The digits of bytes as they lie in memory.
std::string digitsOf(const void* data, std::size_t size);

/// A message: header, payload and attributes, each a block. Sequence number and port are 0. The length counts the
/// blocks as they are; zeros follow up to a multiple of 4.
std::string message(int type, int flags, Blocks blocks = {});

std::string attr(int type, const std::string& value); ///< An attribute, padded with zeros.
std::string attr(int type, std::uint32_t value);      ///< The same of a 32-bit number in the machine's order.
std::string nest(int type, Blocks attributes);        ///< A nest, flag bit included: its header, then its attributes.

// Structures of <linux/xfrm.h>, fields named as there; those that are not named are zero. Addresses are texts, IPv4 or
// IPv6; SPIs and ports are numbers in the machine's order.

struct XfrmSelector {
    const char* daddr = "";
    const char* saddr = "";
    int family        = 0;
    int prefixlen_d   = 0;
    int prefixlen_s   = 0;
    int proto         = 0;
    operator std::string() const;
};

struct XfrmUsersaInfo {
    const char* daddr = "";
    std::uint32_t spi = 0;
    int proto         = 0;
    const char* saddr = "";
    std::uint64_t lft = 0; ///< each limit of bytes and of packets
    int family        = 0;
    int mode          = 0;
    int flags         = 0;
    operator std::string() const;
};

struct XfrmUsersaId {
    const char* daddr = "";
    std::uint32_t spi = 0;
    int family        = 0;
    int proto         = 0;
    operator std::string() const;
};

struct XfrmAlgo {
    const char* alg_name = "";
    std::string alg_key  = {}; ///< digits; its length in bits is computed
    operator std::string() const;
};

struct XfrmAlgoAuth {
    const char* alg_name = "";
    int alg_trunc_len    = 0;
    std::string alg_key  = {}; ///< digits; its length in bits is computed
    operator std::string() const;
};

struct XfrmEncapTmpl {
    int encap_type  = 0;
    int encap_sport = 0;
    int encap_dport = 0;
    operator std::string() const;
};

struct XfrmReplayState {
    std::uint32_t oseq   = 0;
    std::uint32_t seq    = 0;
    std::uint32_t bitmap = 0;
    operator std::string() const;
};

struct XfrmReplayStateEsn {
    std::uint32_t bmp_len       = 0;
    std::uint32_t oseq          = 0;
    std::uint32_t seq           = 0;
    std::uint32_t oseq_hi       = 0;
    std::uint32_t seq_hi        = 0;
    std::uint32_t replay_window = 0;
    operator std::string() const;
};

struct XfrmUserpolicyInfo {
    XfrmSelector sel  = {};
    std::uint64_t lft = 0; ///< each limit of bytes and of packets
    int priority      = 0;
    int dir           = 0;
    operator std::string() const;
};

struct XfrmUserpolicyId {
    XfrmSelector sel = {};
    int dir          = 0;
    operator std::string() const;
};

struct XfrmUserTmpl {
    const char* daddr   = "";
    std::uint32_t spi   = 0;
    int proto           = 0;
    int family          = 0;
    const char* saddr   = "";
    int mode            = 0;
    std::uint32_t algos = 0; ///< each of the three masks of algorithms
    operator std::string() const;
};

struct XfrmUserMigrate {
    const char* old_daddr = "";
    const char* old_saddr = "";
    const char* new_daddr = "";
    const char* new_saddr = "";
    int proto             = 0;
    int mode              = 0;
    int old_family        = 0;
    int new_family        = 0;
    operator std::string() const;
};

/// @}

} // namespace Vesk::Testing

#endif
