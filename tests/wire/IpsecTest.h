// What the tests of IPsec share.
#ifndef IPSEC_TEST_H
#define IPSEC_TEST_H

#include "WireTest.h"

#include <Records.h>

#include <linux/xfrm.h>
#include <netinet/in.h>

namespace wire::ipsec {

using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;
using Change = void (*)(Record&);

// What no row would notice
static_assert(TRO_IPSEC_CRYPTO_ALGO_AES_V01 == 12 && TRO_IPSEC_CRYPTO_ALGO_AES_19_V01 == 19, "what modems send");

inline constexpr const char *kHere = "192.0.2.1", *kPeer = "198.51.100.7", *kHere6 = "fe80::1", *kPeer6 = "fe80::2";
inline constexpr unsigned kTxSpi = 0x11223344, kRxSpi = 0x55667788;

inline void same(Record&) {}

inline Record v4(Change change = same, const char* here = kHere, const char* peer = kPeer)
{
    Record record = espTunnel(here, peer);
    change(record);
    return record;
}

// In UDP, from port 0x1234, and with flags of any value but 0.
inline void inUdp(Record& r)
{
    for (auto* flag :
         {&r.spi_rx_valid, &r.spi_tx_valid, &r.ipsec_protocol_valid, &r.encap_mode_valid, &r.remote_addr_valid,
          &r.local_addr_valid, &r.hash_algo_valid, &r.crypto_algo_valid, &r.crypto_key_rx_valid, &r.crypto_key_tx_valid,
          &r.udp_encap_valid, &r.udp_encap, &r.udp_encap_port_valid, &r.hash_key_rx_valid, &r.hash_key_tx_valid})
        *flag = 0x80;
    r.udp_encap_port = htons(0x1234);
}

inline Record v6(Change change = same)
{
    return v4(change, kHere6, kPeer6);
}

static const auto [check, acked, rejects, refused] = Checks(NETLINK_XFRM);

inline const LoggedBy kId = xfrm("setXFRMIdFromBexa"), kMode = xfrm("setXFRMMode"), kEncap = xfrm("setXFRMEncap");
inline const LogLine kNoEncap = kEncap.notice("not setting encapsulation params\n");
inline LogLine noAddress(unsigned type)
{
    return xfrm("setXFRMAddrFromBexa").failure("invalid addr family %u\n", type);
}

inline Log identity(unsigned spi, const Log& addresses = {}, const char* proto = "esp", const char* mode = "tunnel")
{
    return Log{kId.detail("\t..id.proto = %s\n", proto), kId.detail("\t..saddr = %s\n", ""),
               kId.detail("\t..id.daddr = %s\n", ""),    addresses,
               kId.detail("\t..id.spi = 0x%x\n", spi),   kMode.detail("\t..mode = %s\n", mode)};
}

inline XfrmSelector selector(const char* saddr, int sourcePrefix, const char* daddr, int destinationPrefix,
                             int protocol = 0, int family = AF_INET)
{
    return {.daddr       = daddr,
            .saddr       = saddr,
            .family      = family,
            .prefixlen_d = destinationPrefix,
            .prefixlen_s = sourcePrefix,
            .proto       = protocol};
}

} // namespace wire::ipsec

#endif
