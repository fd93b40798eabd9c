#include "RecordFile.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Setter = std::function<void(Record&, const std::string&)>;

std::uint32_t number(const std::string& text, std::uint32_t highest)
{
    std::uint64_t value = 0;
    if (!CLI::detail::lexical_cast(text, value) || text[0] == '-' || value > highest)
        throw std::invalid_argument("not a number that fits");
    return static_cast<std::uint32_t>(value);
}

template <typename Field>
Setter numberIn(std::uint8_t Record::*valid, Field Record::*field, std::uint32_t highest = UINT32_MAX)
{
    return [=](Record& record, const std::string& text) {
        record.*field = static_cast<Field>(number(text, highest));
        record.*valid = 1;
    };
}

Setter addressIn(std::uint8_t Record::*valid, tro_ip_addr_type_v01 Record::*field)
{
    return [=](Record& record, const std::string& text) {
        tro_ip_addr_type_v01& address = record.*field;
        in_addr v4                    = {};
        if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
            const std::uint32_t word = ntohl(v4.s_addr); // the record keeps IPv4 addresses in host order
            address.ip_type          = 4;
            address.addr_len         = sizeof word;
            std::memcpy(address.addr, &word, sizeof word);
        } else if (inet_pton(AF_INET6, text.c_str(), address.addr) == 1) {
            address.ip_type  = 6;
            address.addr_len = sizeof address.addr;
        } else {
            throw std::invalid_argument("not an address");
        }
        record.*valid = 1;
    };
}

template <std::size_t size>
Setter keyIn(std::uint8_t Record::*valid, std::uint32_t Record::*length, std::uint8_t (Record::*field)[size])
{
    return [=](Record& record, const std::string& text) {
        if (text.size() % 2 != 0 || text.size() / 2 > size ||
            text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            throw std::invalid_argument("not a key of whole bytes, in hexadecimal, that fits");
        for (std::size_t i = 0; i < text.size() / 2; ++i)
            (record.*field)[i] = static_cast<std::uint8_t>(std::stoul(text.substr(2 * i, 2), nullptr, 16));
        record.*length = static_cast<std::uint32_t>(text.size() / 2);
        record.*valid  = 1;
    };
}

void setPort(Record& record, const std::string& text)
{
    record.udp_encap_port       = htons(static_cast<std::uint16_t>(number(text, UINT16_MAX)));
    record.udp_encap_port_valid = 1;
}

const std::map<std::string, Setter> kFields = {
    {"spi_rx", numberIn(&Record::spi_rx_valid, &Record::spi_rx)},
    {"spi_tx", numberIn(&Record::spi_tx_valid, &Record::spi_tx)},
    {"ipsec_protocol", numberIn(&Record::ipsec_protocol_valid, &Record::ipsec_protocol)},
    {"encap_mode", numberIn(&Record::encap_mode_valid, &Record::encap_mode)},
    {"remote_addr", addressIn(&Record::remote_addr_valid, &Record::remote_addr)},
    {"local_addr", addressIn(&Record::local_addr_valid, &Record::local_addr)},
    {"hash_algo", numberIn(&Record::hash_algo_valid, &Record::hash_algo)},
    {"crypto_algo", numberIn(&Record::crypto_algo_valid, &Record::crypto_algo)},
    {"crypto_key_rx", keyIn(&Record::crypto_key_rx_valid, &Record::crypto_key_rx_len, &Record::crypto_key_rx)},
    {"crypto_key_tx", keyIn(&Record::crypto_key_tx_valid, &Record::crypto_key_tx_len, &Record::crypto_key_tx)},
    {"udp_encap", numberIn(&Record::udp_encap_valid, &Record::udp_encap, UINT8_MAX)},
    {"aes_mode", numberIn(&Record::aes_mode_valid, &Record::aes_mode)},
    {"udp_encap_port", setPort},
    {"hash_key_rx", keyIn(&Record::hash_key_rx_valid, &Record::hash_key_rx_len, &Record::hash_key_rx)},
    {"hash_key_tx", keyIn(&Record::hash_key_tx_valid, &Record::hash_key_tx_len, &Record::hash_key_tx)},
};

} // namespace

void readRecord(const std::string& path, Record& record)
{
    // The file that is looked at is the one that is read; of a pipe, the writer is not waited for.
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat about    = {};
    std::ifstream file;
    if (fstat(descriptor, &about) == 0 && S_ISREG(about.st_mode))
        file.open("/proc/self/fd/" + std::to_string(descriptor));
    close(descriptor);
    if (!file.is_open())
        throw std::runtime_error(path + ": cannot be read");
    if ((about.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        throw std::runtime_error(path + ": holds keys, but others may read it; chmod 600 it");

    for (const CLI::ConfigItem& item : CLI::ConfigINI().from_config(file)) {
        const auto field = kFields.find(item.name);
        if (field == kFields.end()) // a name that is none may be a key: not to be shown
            throw std::runtime_error(path + ": a line is no \"name = value\" with a name of the record");
        if (item.inputs.size() != 1)
            throw std::runtime_error(path + ": more or less than one value: " + item.name);
        try {
            field->second(record, item.inputs[0]);
        } catch (const std::invalid_argument& error) {
            throw std::runtime_error(path + ": " + item.name + ": " + error.what());
        }
    }
}

void forgetKeys(Record& record)
{
    const auto forget = [](auto& key) {
        std::fill(std::begin(key), std::end(key), std::uint8_t{0});
        __asm__ __volatile__("" : : "r"(key) : "memory"); // or the stores are dropped as dead
    };
    forget(record.crypto_key_rx);
    forget(record.crypto_key_tx);
    forget(record.hash_key_rx);
    forget(record.hash_key_tx);
}
