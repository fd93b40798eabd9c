/**
 * @file
 * Records as the modem fills them, to begin a test with.
 */
#ifndef VESK_RECORDS_H
#define VESK_RECORDS_H

#include <vesk/ipsec_sa_record.h>

namespace Vesk::Testing {

/// The modem's form of an address; an invalid type when the text is neither IPv4 nor IPv6.
tro_ip_addr_type_v01 modemAddress(const char* text);

/// An ESP tunnel between two addresses, AES-CBC with HMAC-SHA-256, no UDP. SPIs: 0x11223344 (TX), 0x55667788 (RX).
/// Keys: 16 bytes 0xc1 and 32 bytes 0xa1 (TX), 16 bytes 0xc2 and 32 bytes 0xa2 (RX).
tro_ipsec_static_sa_config_ex_info_ind_msg_v01 espTunnel(const char* local, const char* remote);

} // namespace Vesk::Testing

#endif
