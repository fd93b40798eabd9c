/**
 * @file
 * The modem's IPsec security-association record, as far as this library reads it.
 *
 * The modem describes a pair of security associations (SAs): one outgoing (TX), one incoming (RX). They share
 * protocol, mode, algorithms and addresses; each has its own SPI and keys. The library only reads a record, and keeps
 * no reference to it after a call.
 *
 * Fields that the library never reads are not declared, so the modem's own structure may be longer. Copy it field by
 * field. Cast a pointer only if all offsets are those of this one.
 *
 * Each optional field follows a flag of one byte, of the same name with the suffix `_valid`. A flag other than 0 says
 * that the field holds a value. Set both for each field. These calls look at flags:
 *
 * - `addXFRMStates`, `updateXFRMStates` and `addXFRMPolicies` refuse (EINVAL) a needed field whose flag is 0.
 * - `migrateXFRMInfo` refuses a mode whose flag is 0. With the flag 0, a field of UDP encapsulation counts as 0.
 *
 * Removing, and the search for the SAs to update, use SPIs, addresses and protocol whatever the flags say.
 *
 * @warning Check a record before you pass it on. The library does not refuse the following, and kernels may take it.
 *
 * | check that | else |
 * |---|---|
 * | cipher keys have at most 128 bytes, integrity keys at most 440 | the process ends |
 * | keys have the lengths of the table below | kernels take integrity keys of any length, 0 too; EINVAL for others |
 * | both addresses have `ip_type` 4, or both 6 with `addr_len` 16 | an SA leads elsewhere, to 0.0.0.0 for example |
 * | `ipsec_protocol` is 2 or 3 | only its low 8 bits count to add; SAs are not found again, to update or remove |
 * | `spi_tx` and `spi_rx` differ | RX is not found again |
 * | with `udp_encap`, `udp_encap_port` is set and valid | SAs are without UDP encapsulation, and nothing fails |
 *
 * | algorithm | key in bytes | what kernels take |
 * |---|---|---|
 * | DES, 3DES | 8, 24 | these |
 * | AES in CBC mode | 16, 24 or 32 | these |
 * | AES in CTR mode | 20, 28 or 36: the key and 4 bytes of nonce | these |
 * | AES-XCBC | 16 | 16, 24, 32 |
 * | HMAC with MD5, SHA-1, SHA-256, SHA-384, SHA-512 | 16, 20, 32, 48, 64 | any |
 */
#ifndef VESK_IPSEC_SA_RECORD_H
#define VESK_IPSEC_SA_RECORD_H

#include <cstdint>

/// @addtogroup ipsec
/// @{

/// What `tro_ip_addr_type_v01::ip_type` says.
enum tro_ip_type_enum_v01 : std::uint32_t {
    TRO_IP_TYPE_IPV4_V01 = 4,
    TRO_IP_TYPE_IPV6_V01 = 6,
};

/// What `ipsec_protocol` says.
enum tro_ipsec_protocol_enum_v01 : std::uint32_t {
    TRO_IPSEC_PROTOCOL_AH_V01  = 2,
    TRO_IPSEC_PROTOCOL_ESP_V01 = 3,
};

/// What `encap_mode` says.
enum tro_ipsec_encap_mode_enum_v01 : std::uint32_t {
    TRO_IPSEC_ENCAP_MODE_TUNNEL_V01    = 1,
    TRO_IPSEC_ENCAP_MODE_TRANSPORT_V01 = 2,
};

/// What `hash_algo` says.
enum tro_ipsec_hash_algo_enum_v01 : std::uint32_t {
    TRO_IPSEC_HASH_ALGO_SHA1_V01     = 5,
    TRO_IPSEC_HASH_ALGO_SHA256_V01   = 6,
    TRO_IPSEC_HASH_ALGO_MD5_V01      = 7,
    TRO_IPSEC_HASH_ALGO_AES_XCBC_V01 = 12,
    TRO_IPSEC_HASH_ALGO_SHA384_V01   = 20,
    TRO_IPSEC_HASH_ALGO_SHA512_V01   = 21,
};

/// What `crypto_algo` says.
enum tro_ipsec_crypto_algo_enum_v01 : std::uint32_t {
    TRO_IPSEC_CRYPTO_ALGO_DES_CBC_V01  = 9,
    TRO_IPSEC_CRYPTO_ALGO_3DES_CBC_V01 = 10,
    TRO_IPSEC_CRYPTO_ALGO_AES_V01      = 12, ///< In the mode that `aes_mode` says.
    TRO_IPSEC_CRYPTO_ALGO_AES_19_V01   = 19, ///< The same under another code.
};

/// What `aes_mode` says.
enum tro_ipsec_aes_mode_enum_v01 : std::uint32_t {
    TRO_IPSEC_AES_MODE_CBC_V01 = 1,
    TRO_IPSEC_AES_MODE_CTR_V01 = 2, ///< The key ends in 4 bytes of nonce.
};

/// An IP address as the modem writes it.
struct tro_ip_addr_type_v01 {
    std::uint32_t ip_type;  ///< A `tro_ip_type_enum_v01`; any other value is invalid.
    std::uint32_t addr_len; ///< Bytes of `addr` that are sent; read for IPv6 only. More than 16 count as 16.
    std::uint8_t addr[16];  ///< IPv6: 16 bytes in network order. IPv4: the first 4 bytes are one word in HOST order.
};

/// A pair of IPsec security associations.
struct tro_ipsec_static_sa_config_ex_info_ind_msg_v01 {
    std::uint8_t spi_rx_valid;
    std::uint32_t spi_rx; ///< SPI of the incoming SA, host order.
    std::uint8_t spi_tx_valid;
    std::uint32_t spi_tx; ///< SPI of the outgoing SA, host order.
    std::uint8_t ipsec_protocol_valid;
    std::uint32_t ipsec_protocol; ///< A `tro_ipsec_protocol_enum_v01`.
    std::uint8_t encap_mode_valid;
    std::uint32_t encap_mode; ///< A `tro_ipsec_encap_mode_enum_v01`.
    std::uint8_t remote_addr_valid;
    tro_ip_addr_type_v01 remote_addr; ///< The peer: destination of TX, source of RX.
    std::uint8_t local_addr_valid;
    tro_ip_addr_type_v01 local_addr; ///< This end: source of TX, destination of RX.
    std::uint8_t hash_algo_valid;
    std::uint32_t hash_algo; ///< A `tro_ipsec_hash_algo_enum_v01`.
    std::uint8_t crypto_algo_valid;
    std::uint32_t crypto_algo; ///< A `tro_ipsec_crypto_algo_enum_v01`.
    std::uint8_t crypto_key_rx_valid;
    std::uint32_t crypto_key_rx_len; ///< In bytes, at most 128.
    std::uint8_t crypto_key_rx[128]; ///< Cipher key of the incoming SA.
    std::uint8_t crypto_key_tx_valid;
    std::uint32_t crypto_key_tx_len; ///< In bytes, at most 128.
    std::uint8_t crypto_key_tx[128]; ///< Cipher key of the outgoing SA.
    std::uint8_t udp_encap_valid;
    std::uint8_t udp_encap; ///< Non-zero: ESP is carried in UDP (NAT traversal). Without a valid port it is not.
    std::uint8_t aes_mode_valid;
    std::uint32_t aes_mode; ///< A `tro_ipsec_aes_mode_enum_v01`; CBC when not valid.
    std::uint8_t udp_encap_port_valid;
    std::uint16_t udp_encap_port; ///< This end's UDP port, NETWORK order; the peer's is always 4500.
    std::uint8_t hash_key_rx_valid;
    std::uint32_t hash_key_rx_len;  ///< In bytes, at most 440.
    std::uint8_t hash_key_rx[1024]; ///< Integrity key of the incoming SA.
    std::uint8_t hash_key_tx_valid;
    std::uint32_t hash_key_tx_len;  ///< In bytes, at most 440.
    std::uint8_t hash_key_tx[1024]; ///< Integrity key of the outgoing SA.
};

/// The radio technology that carries the tunnel. Any value may be passed; only this one makes a difference.
enum tro_technology_name_enum_v01 : std::int32_t {
    TRO_TECHNOLOGY_NAME_MARKED_RX_V01 = -32640, ///< The incoming SA gets an output mark, 0x20002.
};

/// @}

#endif
