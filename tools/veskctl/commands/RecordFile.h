// A modem's record as a file: one `name = value` a line, names as in the record. What follows ; or # is a comment.
//
//     spi_tx = 0x1001                      numbers: decimal, or hexadecimal with 0x
//     remote_addr = 192.0.2.254            addresses: IPv4 or IPv6 text
//     crypto_algo = aes-cbc                what has codes: a word or a code
//     crypto_key_tx = 00112233445566778899aabbccddeeff
//
// What is there is valid, what is not there is not. The file holds keys, so only its owner may read or write it.
#ifndef VESKCTL_RECORD_FILE_H
#define VESKCTL_RECORD_FILE_H

#include "kernel/Record.h"
#include "print/Answer.h"

#include <string>
#include <vector>

// What a record is read for, which says what it must hold.
enum Purpose : unsigned {
    ForStates    = 1,
    ForRemoval   = 2,
    ForPolicies  = 4,
    ForMigration = 8,
};

// A record that forgets its keys.
class FileRecord : public Record {
public:
    FileRecord() : Record() {}
    ~FileRecord() { forgetKeys(); }
    FileRecord(const FileRecord&)            = delete;
    FileRecord& operator=(const FileRecord&) = delete;

    // Throws a Refusal with all that is wrong, a line each, none of which shows a key. "-" is standard input. Adds what
    // may not be meant to the warnings. From then on, the process leaves no core file.
    void read(const std::string& path, Purpose purpose, std::vector<std::string>& warnings);

    // The record in words, without keys.
    [[nodiscard]] Json described() const;

    // Overwrites the keys, and leaves their lengths.
    void forgetKeys();
};

// The names of the fields that both records give, and differently; those of the migration's own aside.
std::vector<std::string> differences(const Record& one, const Record& other);

// Every name of a record, its words and codes, the lengths of keys.
void explainRecord(Answer& answer);

#endif
