// A modem's record as a file: one `name = value` a line, names as in the record.
//
//     spi_tx = 0x1001                      numbers: as in C
//     remote_addr = 192.0.2.254            addresses: IPv4 or IPv6 text
//     crypto_key_tx = 00112233445566778899aabbccddeeff
//
// What is there is valid, what is not there is not. The file holds keys, so nobody but its owner may read it.
#ifndef VESK_RECORD_FILE_H
#define VESK_RECORD_FILE_H

#include <vesk/ipsec_sa_record.h>

#include <string>

using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;

// Fills a zeroed record. Throws std::runtime_error with what is wrong, and where; no key is in that text.
void readRecord(const std::string& path, Record& record);

// Overwrites the record's keys. (The text of the file has passed through the C++ library's buffers; the process that read
// it should be short.)
void forgetKeys(Record& record);

#endif
