#include "AnyOperation.h"

#include "Records.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Vesk::Testing {

void ByteSource::take(void* to, std::size_t size)
{
    const std::size_t taken = std::min(size, left);
    std::memset(to, 0, size);
    std::copy_n(at, taken, static_cast<std::uint8_t*>(to));
    at += taken;
    left -= taken;
}

std::vector<std::uint8_t> ByteSource::bytes(std::size_t limit)
{
    std::vector<std::uint8_t> all(std::min<std::size_t>({any<std::uint16_t>(), limit, left}));
    if (!all.empty())
        take(all.data(), all.size());
    return all;
}

namespace {

using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;

// Each of these leaves a value as it is, or makes another of it.

template <typename Number>
void vary(ByteSource& source, Number& value)
{
    if (source.yes())
        value = source.yes() ? source.any<Number>() : static_cast<Number>(source.below(4)); // a code, for instance
}

void vary(ByteSource& source, bool& value)
{
    value = value != source.yes();
}

void vary(ByteSource& source, std::vector<std::uint8_t>& value)
{
    value = source.bytes(4096);
}

void vary(ByteSource& source, std::string& value)
{
    static const char* const known[] = {"wlan0", "198.51.100.7", "2001:db8::7", "10.0.0.0/8", "fe80::/0x40", ""};
    if (!source.yes())
        return;
    const std::vector<std::uint8_t> any = source.bytes(80);
    value = source.yes() ? std::string(any.begin(), any.end()) : known[source.below(std::size(known))];
}

void vary(ByteSource& source, sockaddr_storage& value)
{
    if (source.yes())
        value = source.any<sockaddr_storage>();
    if (source.yes())
        value.ss_family = source.yes() ? AF_INET : AF_INET6;
}

// Most of a random record would be refused at once: parts of it are what the modem may say.
void vary(ByteSource& source, Record& record)
{
    if (source.yes()) {
        const Record valid = record;
        record             = source.any<Record>();
        if (source.yes())
            for (auto flag : {&Record::spi_tx_valid, &Record::spi_rx_valid, &Record::ipsec_protocol_valid,
                              &Record::encap_mode_valid, &Record::remote_addr_valid, &Record::local_addr_valid,
                              &Record::hash_algo_valid, &Record::crypto_algo_valid, &Record::crypto_key_tx_valid,
                              &Record::crypto_key_rx_valid, &Record::hash_key_tx_valid, &Record::hash_key_rx_valid})
                record.*flag = valid.*flag;
        if (source.yes()) {
            record.crypto_key_tx_len %= 140;
            record.crypto_key_rx_len %= 140;
            record.hash_key_tx_len %= 450;
            record.hash_key_rx_len %= 450;
        }
    }
    if (source.yes()) {
        record.ipsec_protocol = 1 + source.below(4);
        record.encap_mode     = source.below(4);
        record.crypto_algo    = 8 + source.below(13);
        record.hash_algo      = 4 + source.below(19);
    }
    if (source.yes())
        record.remote_addr.ip_type = record.local_addr.ip_type = source.yes() ? 4 : 6;
}

template <typename Returned, typename... Parameters>
AnyOperation row(const char* name, Returned (*operation)(Parameters...), const auto&... usual)
{
    return {name, [operation, all = std::tuple(Held<Parameters>(usual)...)](ByteSource& source) {
                auto varied = all;
                std::apply([&](auto&... each) { (vary(source, each.value), ...); }, varied);
                return Operation::holding(operation, std::move(varied));
            }};
}

#define ROW(operation, ...) row(#operation, operation, __VA_ARGS__)

// What the operations do not take as arguments, or do not say by a number

int family(std::string name, unsigned char version, unsigned short id)
{
    return queryGenericNetlinkFamily(name, version, &id);
}

int gateway(std::string destination, unsigned mark, unsigned char family)
{
    const auto [found, status] = RTNetlinkGetRoute(destination, mark, family);
    if (status == 0 && found.empty())
        errno = ENOENT;
    return found.empty() ? -1 : 0;
}

int generate(int family, bool useDefault)
{
    unsigned label = 0;
    return addrlabelGenerate(family, useDefault, &label);
}

// To another record of any content, or to another address.
int migrate(Record& from, Record& to, bool whole, std::string local, std::string remote, unsigned char protocol)
{
    Record moved     = whole ? to : from;
    moved.local_addr = to.local_addr;
    return migrateXFRMInfo(from, moved, local, remote, protocol);
}

// A refusal that is as long as it says, as its reader may expect.
int explain(const std::vector<std::uint8_t>& refusal)
{
    alignas(nlmsghdr) std::uint8_t message[4096] = {};
    std::copy(refusal.begin(), refusal.end(), message);
    const auto length = static_cast<std::uint32_t>(std::max(refusal.size(), sizeof(nlmsghdr)));
    std::memcpy(message, &length, sizeof length);
    NetlinkMessage().extack(reinterpret_cast<nlmsghdr*>(message));
    return 0;
}

int parse(std::vector<std::uint8_t>& run, unsigned short highest)
{
    std::unordered_map<int, nlattr*> map;
    NetlinkMessage::parseAttributes(reinterpret_cast<nlattr*>(run.data()), map, static_cast<unsigned>(run.size()),
                                    highest);
    return 0;
}

Record inUdp(const char* local)
{
    Record record               = espTunnel(local, "198.51.100.7");
    record.udp_encap_port_valid = record.udp_encap_valid = record.udp_encap = 1;
    return record;
}

} // namespace

const std::vector<AnyOperation>& anyOperations()
{
    static const Record record = inUdp("192.0.2.1"), moved = inUdp("192.0.2.9");
    static const char *const here = "10.0.0.0/8", *const there = "10.1.0.0/16";
    static const auto technology = TRO_TECHNOLOGY_NAME_MARKED_RX_V01;
    static const std::vector<AnyOperation> all{
        row("queryGenericNetlinkFamily", family, "nlctrl", 2, 0),
        row("NetlinkMessage::extack", explain, std::vector<std::uint8_t>()),
        row("NetlinkMessage::parseAttributes", parse, std::vector<std::uint8_t>(), 6),
        ROW(RTNetlinkAddressCfg, "wlan0", "fe80::1", 64, AddressAdd, 0),
        ROW(RTNetlinkSetGSOMaxSize, "wlan0", 1500),
        row("RTNetlinkGetRoute", gateway, "198.51.100.7", 42, AF_INET),
        ROW(RTNetlinkAddRoute, "198.51.100.7", 42, AF_INET, 1000, 3),
        ROW(RTNetlinkDeleteRoute, "198.51.100.7", 42, AF_INET, 1000, 3),
        ROW(RTNetlinkGetRule, "wlan0"),
        ROW(RTNetlinkTCQdisc, "wlan0", "pfifo", 0, 0x10000, 0),
        ROW(RTNetlinkTCPrio, "wlan0", 0, 0x10000, 0),
        ROW(RTNetlinkFlowControl, "wlan0", 0, 0x10000, 1, 2),
        ROW(addrlabelAdd, "fe80::1", 64, 20, 3),
        ROW(addrlabelDel, "fe80::1", 64, 20, 3),
        row("addrlabelGenerate", generate, AF_INET6, false),
        ROW(addrlabelPurge, "fe80::1", 64, 3),
        ROW(addXFRMStates, record, technology, 1, 1),
        ROW(updateXFRMStates, record, technology, 1, 1),
        ROW(removeXFRMStates, record),
        ROW(addXFRMPolicies, record, here, there, 0, false),
        ROW(removeXFRMPolicies, here, there, 0, false),
        ROW(addXFRMPolicyEx, 1),
        ROW(removeXFRMPolicyEx, 1),
        row("migrateXFRMInfo", migrate, record, moved, true, here, there, 0),
    };
    return all;
}

} // namespace Vesk::Testing
