#include "FuzzTarget.h"

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <vector>

#include <unistd.h>

using namespace Vesk;
using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;

static std::jmp_buf beforeTheCall;
static bool inTheCall = false;

// The library's: back to where the call began. Anybody else's: the end.
extern "C" void abort() noexcept
{
    if (inTheCall) std::longjmp(beforeTheCall, 1);
    _exit(134);
}

static Record recordOf(FuzzedDataProvider& input)
{
    Record record;
    std::memset(&record, 0, sizeof record);
    input.ConsumeData(&record, sizeof record);
    // Most of a random record would be refused at once: let some of it be what the modem may say.
    if (input.ConsumeBool())
        record.spi_tx_valid = record.spi_rx_valid = record.ipsec_protocol_valid = record.encap_mode_valid = record.remote_addr_valid = record.local_addr_valid =
            1;
    if (input.ConsumeBool()) record.ipsec_protocol = input.ConsumeIntegralInRange(1u, 4u), record.encap_mode = input.ConsumeIntegralInRange(0u, 3u);
    if (input.ConsumeBool()) record.crypto_algo = input.ConsumeIntegralInRange(8u, 20u), record.hash_algo = input.ConsumeIntegralInRange(4u, 22u);
    if (input.ConsumeBool()) record.remote_addr.ip_type = record.local_addr.ip_type = input.ConsumeBool() ? 4 : 6;
    if (input.ConsumeBool()) record.crypto_key_tx_len %= 140, record.crypto_key_rx_len %= 140, record.hash_key_tx_len %= 450, record.hash_key_rx_len %= 450;
    return record;
}

std::function<void()> operationOf(FuzzedDataProvider& input)
{
    const auto number = [&] { return input.ConsumeIntegral<unsigned int>(); };
    const auto byte = [&] { return input.ConsumeIntegral<unsigned char>(); };
    const auto text = [&] { return input.ConsumeBool() ? std::string("wlan0") : input.ConsumeRandomLengthString(80); };
    const auto destination = [&] { return input.ConsumeBool() ? std::string("198.51.100.7") : input.ConsumeRandomLengthString(40); };
    const auto family = [&]() -> unsigned char { return input.ConsumeBool() ? 2 : byte(); };
    const auto technology = [&] { return static_cast<tro_technology_name_enum_v01>(input.ConsumeBool() ? -32640 : input.ConsumeIntegral<int>()); };
    sockaddr_storage address = {};
    input.ConsumeData(&address, sizeof address);
    if (input.ConsumeBool()) address.ss_family = input.ConsumeBool() ? 2 : 10;
    const unsigned int a = number(), b = number(), c = number();
    const unsigned char x = byte(), y = byte();

    switch (input.ConsumeIntegralInRange(0, 23)) {
    case 0:
        return [name = text(), x]() mutable {
            unsigned short id;
            queryGenericNetlinkFamily(name, x, &id);
        };
    case 1:
        return [=, name = text()]() mutable { RTNetlinkAddressCfg(name, &address, a, static_cast<AddressLifetimeChange>(b), c); };
    case 2:
        return [=, name = text()]() mutable { RTNetlinkSetGSOMaxSize(name, static_cast<unsigned short>(a)); };
    case 3:
        return [=, to = destination(), f = family()] { RTNetlinkAddRoute(to, a, f, b, c); };
    case 4:
        return [=, to = destination(), f = family()] { RTNetlinkDeleteRoute(to, a, f, b, c); };
    case 5:
        return [=, to = destination(), f = family()] { RTNetlinkGetRoute(to, a, f); };
    case 6:
        return [name = text()] { RTNetlinkGetRule(name); };
    case 7:
        return [=, name = text(), kind = text()]() mutable { RTNetlinkTCQdisc(name, kind, a, b, x); };
    case 8:
        return [=, name = text()]() mutable { RTNetlinkTCPrio(name, a, b, x % 4); };
    case 9:
        return [=, name = text()]() mutable { RTNetlinkFlowControl(name, a, b, y, x % 4); };
    case 10:
        return [=]() mutable { addrlabelAdd(&address, a, b, c); };
    case 11:
        return [=]() mutable { addrlabelDel(&address, a, b, c); };
    case 12:
        return [=] {
            unsigned int label;
            addrlabelGenerate(x % 2 != 0 ? 10 : static_cast<int>(a), y % 8 == 0, &label);
        };
    case 13:
    case 14:
        return [=]() mutable { addrlabelPurge(&address, a % 140, b % 4); };
    case 15:
        return [=, r = recordOf(input), t = technology()]() mutable { addXFRMStates(r, t, a, b); };
    case 16:
        return [=, r = recordOf(input), t = technology()]() mutable { updateXFRMStates(r, t, a, b); };
    case 17:
        return [r = recordOf(input)]() mutable { removeXFRMStates(r); };
    case 18:
        return [=, r = recordOf(input), s = destination(), d = destination()]() mutable { addXFRMPolicies(r, s, d, x, y % 2 != 0); };
    case 19:
        return [=, s = destination(), d = destination()]() mutable { removeXFRMPolicies(s, d, x, y % 2 != 0); };
    case 20:
        return [x] { addXFRMPolicyEx(x), removeXFRMPolicyEx(x); };
    case 21:
        return
            [=, o = recordOf(input), n = recordOf(input), s = destination(), d = destination()]() mutable { migrateXFRMInfo(o, x % 2 != 0 ? o : n, s, d, y); };
    case 22:
        return [bytes = input.ConsumeBytes<unsigned char>(4096)]() mutable { // a refusal, as long as it says
            std::vector<unsigned char> message(std::max<std::size_t>(bytes.size(), sizeof(nlmsghdr)));
            std::copy(bytes.begin(), bytes.end(), message.begin());
            const auto length = static_cast<unsigned int>(message.size());
            std::memcpy(message.data(), &length, sizeof length);
            NetlinkMessage().extack(reinterpret_cast<nlmsghdr*>(message.data()));
        };
    default:
        return [bytes = input.ConsumeBytes<unsigned char>(4096), a]() mutable {
            std::unordered_map<int, nlattr*> map;
            NetlinkMessage::parseAttributes(reinterpret_cast<nlattr*>(bytes.data()), map, static_cast<unsigned int>(bytes.size()),
                                            static_cast<unsigned short>(a));
        };
    }
}

void survive(Vesk::Testing::ScriptedKernel& kernel, const std::function<void()>& operation)
{
    kernel.addInterface("wlan0", 3);
    if (setjmp(beforeTheCall) != 0) {
        kernel.abandon(); // what an abort would have taken with it
        return;
    }
    inTheCall = true;
    kernel.run([&] {
        operation();
        return 0;
    });
    inTheCall = false;
    for (const std::string& complaint : kernel.complaints())
        if (complaint != "a receive found no reply") std::puts(complaint.c_str()), __builtin_trap();
    if (kernel.openSockets() + kernel.liveBlocks() != 0) __builtin_trap();
}
