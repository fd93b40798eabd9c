/**
 * @file
 * The modem's IPsec security-association record, as far as this library reads it.
 *
 * The modem describes a pair of security associations (SAs): one outgoing (TX), one incoming (RX). They share
 * protocol, mode, algorithms and addresses; each has its own SPI and keys. The decoder of the modem's messages
 * fills the record; the library only reads it and keeps no reference to it after a call.
 *
 * Each optional field follows a one-byte flag of the same name with the suffix `_valid`; non-zero means that the
 * field holds a value. Finding SAs again (to remove or update them) compares SPIs, addresses and protocol whatever
 * their flags say; so does a migration with mode, protocol and the peer's address, and it sends addresses and protocol
 * so. Fields that the library never reads are not declared.
 */
#ifndef VESK_IPSEC_SA_RECORD_H
#define VESK_IPSEC_SA_RECORD_H

#include <cstdint>

/// @addtogroup ipsec
/// @{

/// An IP address as the modem writes it.
struct tro_ip_addr_type_v01 {
    std::uint32_t ip_type;  ///< 4: IPv4, 6: IPv6; any other value is invalid.
    std::uint32_t addr_len; ///< Bytes of `addr` that are sent; read for IPv6 only. Above 16 counts as 16.
    std::uint8_t addr[16];  ///< IPv6: 16 bytes in network order. IPv4: the first 4 bytes are one word in HOST order.
};

/// A pair of IPsec security associations.
struct tro_ipsec_static_sa_config_ex_info_ind_msg_v01 {
    std::uint8_t spi_rx_valid;
    std::uint32_t spi_rx; ///< SPI of the incoming SA, host order.
    std::uint8_t spi_tx_valid;
    std::uint32_t spi_tx; ///< SPI of the outgoing SA, host order.
    std::uint8_t ipsec_protocol_valid;
    std::uint32_t ipsec_protocol; ///< 2: AH, 3: ESP.
    std::uint8_t encap_mode_valid;
    std::uint32_t encap_mode; ///< 1: tunnel, 2: transport.
    std::uint8_t remote_addr_valid;
    tro_ip_addr_type_v01 remote_addr; ///< The peer: destination of TX, source of RX.
    std::uint8_t local_addr_valid;
    tro_ip_addr_type_v01 local_addr; ///< This end: source of TX, destination of RX.
    std::uint8_t hash_algo_valid;
    std::uint32_t hash_algo; ///< 5: SHA-1, 6: SHA-256, 7: MD5, 12: AES-XCBC, 20: SHA-384, 21: SHA-512.
    std::uint8_t crypto_algo_valid;
    std::uint32_t crypto_algo; ///< 9: DES-CBC, 10: 3DES-CBC, 12 and 19: AES in the mode of `aes_mode`.
    std::uint8_t crypto_key_rx_valid;
    std::uint32_t crypto_key_rx_len; ///< In bytes, at most 128.
    std::uint8_t crypto_key_rx[128]; ///< Cipher key of the incoming SA.
    std::uint8_t crypto_key_tx_valid;
    std::uint32_t crypto_key_tx_len; ///< In bytes, at most 128.
    std::uint8_t crypto_key_tx[128]; ///< Cipher key of the outgoing SA.
    std::uint8_t udp_encap_valid;
    std::uint8_t udp_encap; ///< Non-zero, with a valid port: ESP is carried in UDP (NAT traversal).
    std::uint8_t aes_mode_valid;
    std::uint32_t aes_mode; ///< 1: CBC, 2: CTR (the key ends in 4 bytes of nonce); CBC when not valid.
    std::uint8_t udp_encap_port_valid;
    std::uint16_t udp_encap_port; ///< This end's UDP port, NETWORK order; the peer's is always 4500.
    std::uint8_t hash_key_rx_valid;
    std::uint32_t hash_key_rx_len;  ///< In bytes, at most 440.
    std::uint8_t hash_key_rx[1024]; ///< Integrity key of the incoming SA.
    std::uint8_t hash_key_tx_valid;
    std::uint32_t hash_key_tx_len;  ///< In bytes, at most 440.
    std::uint8_t hash_key_tx[1024]; ///< Integrity key of the outgoing SA.
};

/// The radio technology that carries the tunnel. Any value may be passed; one is told apart.
enum tro_technology_name_enum_v01 : std::int32_t {
    TRO_TECHNOLOGY_NAME_MARKED_RX_V01 = -32640, ///< The incoming SA gets an output mark too.
};

/// @}

#endif
