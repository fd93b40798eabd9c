// From a record to a tunnel: the handset's end of the one in examples/tunnel. The modem's decoder
// fills the record, with keys that nobody else knows; here it is filled by hand.
#include <vesk/netlink.h>

#include <cstdio>

int main()
{
    tro_ipsec_static_sa_config_ex_info_ind_msg_v01 record = {};

    record.spi_tx         = 0x1001;
    record.spi_rx         = 0x2002;
    record.ipsec_protocol = TRO_IPSEC_PROTOCOL_ESP_V01;
    record.encap_mode     = TRO_IPSEC_ENCAP_MODE_TUNNEL_V01;
    record.local_addr  = {TRO_IP_TYPE_IPV4_V01, 4, {1, 2, 0, 192}};   // 192.0.2.1, as the bytes of a word in host order
    record.remote_addr = {TRO_IP_TYPE_IPV4_V01, 4, {254, 2, 0, 192}}; // 192.0.2.254
    record.crypto_algo = TRO_IPSEC_CRYPTO_ALGO_AES_V01;               // in CBC mode
    record.hash_algo   = TRO_IPSEC_HASH_ALGO_SHA256_V01;

    record.crypto_key_tx_len = record.crypto_key_rx_len = 16;
    record.hash_key_tx_len = record.hash_key_rx_len = 32;

    const auto fill = [](std::uint8_t* key, std::uint32_t length, unsigned int first) {
        for (std::uint32_t i = 0; i < length; ++i)
            key[i] = static_cast<std::uint8_t>(first + i % 16);
    };
    fill(record.crypto_key_tx, record.crypto_key_tx_len, 0x10);
    fill(record.crypto_key_rx, record.crypto_key_rx_len, 0x20);
    fill(record.hash_key_tx, record.hash_key_tx_len, 0x30);
    fill(record.hash_key_rx, record.hash_key_rx_len, 0x40);

    for (auto* valid : {&record.spi_tx_valid, &record.spi_rx_valid, &record.ipsec_protocol_valid,
                        &record.encap_mode_valid, &record.local_addr_valid, &record.remote_addr_valid,
                        &record.crypto_algo_valid, &record.hash_algo_valid, &record.crypto_key_tx_valid,
                        &record.crypto_key_rx_valid, &record.hash_key_tx_valid, &record.hash_key_rx_valid})
        *valid = 1;

    std::string here = "10.0.0.0/16", there = "10.1.0.0/16";
    if (Vesk::addXFRMPolicies(record, here, there, 0, true) != 0 ||  // what goes out
        Vesk::addXFRMPolicies(record, there, here, 0, false) != 0 || // what comes in, and is forwarded
        Vesk::addXFRMStates(record, {}, 0x1, 0xff) != 0) {
        std::perror("record_to_tunnel"); // errno says why
        return 1;
    }
}
