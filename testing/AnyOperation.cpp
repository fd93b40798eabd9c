#include "AnyOperation.h"

#include "Records.h"

#include <vesk/netlink.h>

#include <algorithm>
#include <cstring>

namespace Vesk::Testing {

void ByteSource::take(void* to, std::size_t size)
{
    const std::size_t taken = std::min(size, left);
    std::memset(to, 0, size);
    std::memcpy(to, at, taken);
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

std::string ByteSource::text(std::size_t limit)
{
    const std::vector<std::uint8_t> all = bytes(limit);
    return {all.begin(), all.end()};
}

namespace {

using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;

// Most of a random record would be refused at once: let parts of it be what the modem may say.
Record recordFrom(ByteSource& source)
{
    if (!source.yes())
        return espTunnel("192.0.2.1", "198.51.100.7");
    auto record = source.any<Record>();
    if (source.yes()) {
        record.spi_tx_valid = record.spi_rx_valid = record.ipsec_protocol_valid = record.encap_mode_valid = 1;
        record.remote_addr_valid = record.local_addr_valid = record.hash_algo_valid = record.crypto_algo_valid = 1;
        record.crypto_key_tx_valid = record.crypto_key_rx_valid = record.hash_key_tx_valid = record.hash_key_rx_valid =
            1;
    }
    if (source.yes()) {
        record.ipsec_protocol = 1 + source.below(4);
        record.encap_mode     = source.below(4);
        record.crypto_algo    = 8 + source.below(13);
        record.hash_algo      = 4 + source.below(19);
    }
    if (source.yes())
        record.remote_addr.ip_type = record.local_addr.ip_type = source.yes() ? 4 : 6;
    if (source.yes()) {
        record.crypto_key_tx_len %= 140;
        record.crypto_key_rx_len %= 140;
        record.hash_key_tx_len %= 450;
        record.hash_key_rx_len %= 450;
    }
    return record;
}

std::string deviceFrom(ByteSource& source)
{
    return source.yes() ? source.text(80) : "wlan0";
}

std::string addressFrom(ByteSource& source)
{
    static const char* const known[] = {"198.51.100.7", "2001:db8::7", "10.0.0.0/8", "fe80::/0x40", ""};
    return source.yes() ? source.text(80) : known[source.below(5)];
}

sockaddr_storage socketAddressFrom(ByteSource& source)
{
    auto address = source.any<sockaddr_storage>();
    if (!source.yes())
        address.ss_family = source.yes() ? AF_INET : AF_INET6;
    return address;
}

// A refusal that is as long as it says, as its reader may expect.
std::vector<std::uint8_t> refusalFrom(ByteSource& source)
{
    std::vector<std::uint8_t> message = source.bytes(4096);
    message.resize(std::max(message.size(), sizeof(nlmsghdr)));
    const auto length = static_cast<std::uint32_t>(message.size());
    std::memcpy(message.data(), &length, sizeof length);
    return message;
}

std::function<void()> ofRoutes(std::uint32_t kind, ByteSource& source)
{
    const auto a = source.any<unsigned int>(), b = source.any<unsigned int>(), c = source.any<unsigned int>();
    const auto family     = static_cast<unsigned char>(source.yes() ? a : AF_INET);
    const auto code       = static_cast<unsigned char>(c % 4);
    const auto change     = static_cast<AddressLifetimeChange>(b);
    std::string device    = deviceFrom(source);
    std::string address   = addressFrom(source);
    sockaddr_storage sock = socketAddressFrom(source);
    switch (kind) {
    case 0:
        return [=]() mutable { RTNetlinkAddressCfg(device, &sock, a, change, c); };
    case 1:
        return [=]() mutable { RTNetlinkSetGSOMaxSize(device, static_cast<unsigned short>(a)); };
    case 2:
        return [=] { RTNetlinkAddRoute(address, a, family, b, c); };
    case 3:
        return [=] { RTNetlinkDeleteRoute(address, a, family, b, c); };
    case 4:
        return [=] { RTNetlinkGetRoute(address, a, family); };
    case 5:
        return [=] { RTNetlinkGetRule(device); };
    case 6:
        return [=]() mutable { RTNetlinkTCQdisc(device, address, a, b, code); };
    case 7:
        return [=]() mutable { RTNetlinkTCPrio(device, a, b, code); };
    default:
        return [=]() mutable { RTNetlinkFlowControl(device, a, b, static_cast<unsigned char>(c), code); };
    }
}

std::function<void()> ofLabelsAndMessages(std::uint32_t kind, ByteSource& source)
{
    const auto a = source.any<unsigned int>(), b = source.any<unsigned int>(), c = source.any<unsigned int>();
    switch (kind) {
    case 0:
        return [=, address = socketAddressFrom(source)]() mutable { addrlabelAdd(&address, a, b, c); };
    case 1:
        return [=, address = socketAddressFrom(source)]() mutable { addrlabelDel(&address, a, b, c); };
    case 2:
        return [=, address = socketAddressFrom(source)]() mutable { addrlabelPurge(&address, a % 140, b % 4); };
    case 3:
        return [=, label = 0u]() mutable {
            addrlabelGenerate(c % 2 != 0 ? static_cast<int>(a) : AF_INET6, b % 8 == 7, &label);
        };
    case 4:
        return [a, id = static_cast<unsigned short>(0), name = deviceFrom(source)]() mutable {
            queryGenericNetlinkFamily(name, static_cast<unsigned char>(a), &id);
        };
    case 5:
        return [message = refusalFrom(source)]() mutable {
            NetlinkMessage().extack(reinterpret_cast<nlmsghdr*>(message.data()));
        };
    default:
        return [a, run = source.bytes(4096)]() mutable {
            std::unordered_map<int, nlattr*> map;
            NetlinkMessage::parseAttributes(reinterpret_cast<nlattr*>(run.data()), map,
                                            static_cast<unsigned int>(run.size()), static_cast<unsigned short>(a));
        };
    }
}

std::function<void()> ofIPsec(std::uint32_t kind, ByteSource& source)
{
    const auto a = source.any<unsigned int>(), b = source.any<unsigned int>();
    const auto technology = static_cast<tro_technology_name_enum_v01>(source.yes() ? source.any<int>() : -32640);
    const auto protocol   = source.any<unsigned char>();
    const bool outbound   = source.yes();
    std::string one       = addressFrom(source);
    std::string other     = addressFrom(source);
    Record record         = recordFrom(source);
    switch (kind) {
    case 0:
        return [=]() mutable { addXFRMStates(record, technology, a, b); };
    case 1:
        return [=]() mutable { updateXFRMStates(record, technology, a, b); };
    case 2:
        return [=]() mutable { removeXFRMStates(record); };
    case 3:
        return [=]() mutable { addXFRMPolicies(record, one, other, protocol, outbound); };
    case 4:
        return [=]() mutable { removeXFRMPolicies(one, other, protocol, outbound); };
    case 5:
        return [=] { outbound ? addXFRMPolicyEx(protocol) : removeXFRMPolicyEx(protocol); };
    default:
        return [=, newRecord = outbound ? record : recordFrom(source)]() mutable {
            migrateXFRMInfo(record, newRecord, one, other, protocol);
        };
    }
}

} // namespace

std::function<void()> anyOperation(std::uint32_t kind, ByteSource& source)
{
    return kind < 9    ? ofRoutes(kind, source)
           : kind < 16 ? ofLabelsAndMessages(kind - 9, source)
                       : ofIPsec(kind - 16, source);
}

} // namespace Vesk::Testing
