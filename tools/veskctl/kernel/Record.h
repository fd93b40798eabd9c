// The modem's record, as commands and looks at the kernel see it.
#ifndef VESKCTL_RECORD_H
#define VESKCTL_RECORD_H

#include <Decode.h>
#include <vesk/ipsec_sa_record.h>

#include <cstring>
#include <string>

#include <arpa/inet.h>

using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;

// As lists name it.
inline const char* protocolOf(const Record& record)
{
    return record.ipsec_protocol == TRO_IPSEC_PROTOCOL_AH_V01 ? "ah" : "esp";
}

// "192.0.2.1", of a word in host order
inline std::string addressText(const tro_ip_addr_type_v01& address)
{
    if (address.ip_type != TRO_IP_TYPE_IPV4_V01)
        return Vesk::Messages::addressText(address.addr, sizeof address.addr);
    std::uint32_t word = 0;
    std::memcpy(&word, address.addr, sizeof word);
    word = htonl(word);
    return Vesk::Messages::addressText(&word, sizeof word);
}

#endif
