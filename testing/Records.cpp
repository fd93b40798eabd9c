#include "Records.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>

namespace Vesk::Testing {

tro_ip_addr_type_v01 modemAddress(const char* text)
{
    tro_ip_addr_type_v01 address = {};
    in_addr v4                   = {};
    if (inet_pton(AF_INET, text, &v4) == 1) {
        const std::uint32_t word = ntohl(v4.s_addr);
        address.ip_type          = TRO_IP_TYPE_IPV4_V01;
        address.addr_len         = sizeof word;
        std::memcpy(address.addr, &word, sizeof word);
    } else if (inet_pton(AF_INET6, text, address.addr) == 1) {
        address.ip_type  = TRO_IP_TYPE_IPV6_V01;
        address.addr_len = sizeof address.addr;
    }
    return address;
}

tro_ipsec_static_sa_config_ex_info_ind_msg_v01 espTunnel(const char* local, const char* remote)
{
    tro_ipsec_static_sa_config_ex_info_ind_msg_v01 record;
    std::memset(&record, 0, sizeof record);

    const auto set = [](std::uint8_t& valid, auto& field, auto value) {
        valid = 1;
        field = value;
    };
    const auto setKey = [](std::uint8_t& valid, std::uint32_t& length, std::uint8_t* key, std::uint8_t byte,
                           std::uint32_t size) {
        valid  = 1;
        length = size;
        std::fill_n(key, size, byte);
    };
    set(record.spi_rx_valid, record.spi_rx, 0x55667788u);
    set(record.spi_tx_valid, record.spi_tx, 0x11223344u);
    set(record.ipsec_protocol_valid, record.ipsec_protocol, TRO_IPSEC_PROTOCOL_ESP_V01);
    set(record.encap_mode_valid, record.encap_mode, TRO_IPSEC_ENCAP_MODE_TUNNEL_V01);
    set(record.remote_addr_valid, record.remote_addr, modemAddress(remote));
    set(record.local_addr_valid, record.local_addr, modemAddress(local));
    set(record.hash_algo_valid, record.hash_algo, TRO_IPSEC_HASH_ALGO_SHA256_V01);
    set(record.crypto_algo_valid, record.crypto_algo, TRO_IPSEC_CRYPTO_ALGO_AES_V01);
    setKey(record.crypto_key_rx_valid, record.crypto_key_rx_len, record.crypto_key_rx, 0xc2, 16);
    setKey(record.crypto_key_tx_valid, record.crypto_key_tx_len, record.crypto_key_tx, 0xc1, 16);
    setKey(record.hash_key_rx_valid, record.hash_key_rx_len, record.hash_key_rx, 0xa2, 32);
    setKey(record.hash_key_tx_valid, record.hash_key_tx_len, record.hash_key_tx, 0xa1, 32);
    return record;
}

} // namespace Vesk::Testing
