// What an operation costs beside other ways to say the same to the kernel:
//
//     floor      the same system calls, the request built beforehand, the least check of the reply
//     library    this library
//     libmnl     a fresh socket each time, as this library does; "kept" keeps one
//     libnl      a fresh socket each time
//
// Run as root in a network of its own. Each job checks that the kernel really did or answered what was asked. Ratios are
// taken pair by pair, the floor and the other in alternation; the median of many short rounds and the middle half of them
// are printed.

#include <vesk/netlink.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sched.h>
#include <unistd.h>

namespace {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;

// A request, as every column builds it, and what its reply must hold.
struct Ask {
    int protocol;
    std::uint16_t type, flags;
    Bytes payload;
    std::vector<std::pair<int, Bytes>> attributes;
    std::size_t replyPayload                                 = 0;       // 0: an acknowledgement is waited for
    std::function<void(std::vector<const nlattr*>&)> consume = nullptr; // sees the attributes of each message, by type
};

constexpr unsigned int kMaxType = 31;

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what);
}

template <typename Value>
Bytes bytesOf(const Value& value)
{
    const auto* from = reinterpret_cast<const unsigned char*>(&value);
    return {from, from + sizeof value};
}

const void* valueOf(const nlattr* attribute)
{
    return reinterpret_cast<const char*>(attribute) + NLA_HDRLEN;
}

std::uint32_t u32Of(const nlattr* attribute)
{
    std::uint32_t value;
    std::memcpy(&value, valueOf(attribute), sizeof value);
    return value;
}

// The floor

Bytes assembled(const Ask& ask)
{
    Bytes bytes(NLMSG_HDRLEN);
    const auto add = [&bytes](const Bytes& more) {
        bytes.insert(bytes.end(), more.begin(), more.end());
        bytes.resize(NLMSG_ALIGN(bytes.size()));
    };
    add(ask.payload);
    for (const auto& [type, value] : ask.attributes) {
        add(bytesOf(nlattr{static_cast<__u16>(NLA_HDRLEN + value.size()), static_cast<__u16>(type)}));
        add(value);
    }
    nlmsghdr header    = {};
    header.nlmsg_len   = static_cast<__u32>(bytes.size());
    header.nlmsg_type  = ask.type;
    header.nlmsg_flags = ask.flags;
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes;
}

void viaFloor(const Ask& ask, const Bytes& request)
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, ask.protocol);
    const int on = 1;
    setsockopt(fd, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
    sockaddr_nl address = {};
    address.nl_family   = AF_NETLINK;
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    if (send(fd, request.data(), request.size(), 0) != static_cast<ssize_t>(request.size()))
        fail("send");
    alignas(nlmsghdr) char buffer[4096];
    for (bool done = false; !done;) {
        const ssize_t size = recv(fd, buffer, sizeof buffer, 0);
        if (size < static_cast<ssize_t>(NLMSG_HDRLEN))
            fail("recv");
        auto left = static_cast<unsigned int>(size);
        for (auto* message = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(message, left);
             message       = NLMSG_NEXT(message, left)) {
            if (message->nlmsg_type == NLMSG_ERROR) {
                if (static_cast<nlmsgerr*>(NLMSG_DATA(message))->error != 0)
                    fail("refused");
                done = true;
            } else if (message->nlmsg_type == NLMSG_DONE) {
                done = true;
            } else {
                static std::vector<const nlattr*> table(kMaxType + 1);
                std::fill(table.begin(), table.end(), nullptr);
                auto* at       = reinterpret_cast<char*>(message) + NLMSG_HDRLEN + ask.replyPayload;
                const auto end = reinterpret_cast<char*>(message) + message->nlmsg_len;
                while (at + NLA_HDRLEN <= end) {
                    auto* attribute = reinterpret_cast<nlattr*>(at);
                    if (attribute->nla_type <= kMaxType)
                        table[attribute->nla_type] = attribute;
                    at += NLA_ALIGN(attribute->nla_len);
                }
                ask.consume(table);
                done = (message->nlmsg_flags & NLM_F_MULTI) == 0;
            }
        }
    }
    close(fd);
}

// libmnl

int keepAttribute(const nlattr* attribute, void* table)
{
    if (mnl_attr_type_valid(attribute, kMaxType) > 0)
        (*static_cast<std::vector<const nlattr*>*>(table))[mnl_attr_get_type(attribute)] = attribute;
    return MNL_CB_OK;
}

int showMessage(const nlmsghdr* message, void* context)
{
    const auto& ask = *static_cast<const Ask*>(context);
    static std::vector<const nlattr*> table(kMaxType + 1);
    std::fill(table.begin(), table.end(), nullptr);
    mnl_attr_parse(message, static_cast<unsigned int>(ask.replyPayload), keepAttribute, &table);
    ask.consume(table);
    return (message->nlmsg_flags & NLM_F_MULTI) != 0 ? MNL_CB_OK : MNL_CB_STOP;
}

mnl_socket* openMnl(int protocol)
{
    mnl_socket* socket = mnl_socket_open2(protocol, SOCK_CLOEXEC);
    if (socket == nullptr || mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) < 0)
        fail("libmnl socket");
    return socket;
}

void exchangeMnl(mnl_socket* socket, const Ask& ask)
{
    char buffer[8192];
    nlmsghdr* header    = mnl_nlmsg_put_header(buffer);
    header->nlmsg_type  = ask.type;
    header->nlmsg_flags = ask.flags;
    std::memcpy(mnl_nlmsg_put_extra_header(header, ask.payload.size()), ask.payload.data(), ask.payload.size());
    for (const auto& [type, value] : ask.attributes)
        mnl_attr_put(header, static_cast<std::uint16_t>(type), value.size(), value.data());
    if (mnl_socket_sendto(socket, header, header->nlmsg_len) < 0)
        fail("libmnl send");
    for (int verdict = MNL_CB_OK; verdict > MNL_CB_STOP;) {
        const ssize_t size = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
        verdict = mnl_cb_run(buffer, static_cast<std::size_t>(size), 0, 0, ask.consume ? showMessage : nullptr,
                             const_cast<Ask*>(&ask));
        if (verdict < 0)
            fail("libmnl: refused");
    }
}

void viaMnl(const Ask& ask)
{
    mnl_socket* socket = openMnl(ask.protocol);
    exchangeMnl(socket, ask);
    mnl_socket_close(socket);
}

void viaKeptMnl(const Ask& ask)
{
    static mnl_socket* sockets[NETLINK_GENERIC + 1];
    if (sockets[ask.protocol] == nullptr)
        sockets[ask.protocol] = openMnl(ask.protocol);
    exchangeMnl(sockets[ask.protocol], ask);
}

// libnl

int showMessageNl(nl_msg* message, void* context)
{
    const auto& ask = *static_cast<const Ask*>(context);
    static std::vector<const nlattr*> table(kMaxType + 1);
    nlmsg_parse(nlmsg_hdr(message), static_cast<int>(ask.replyPayload), const_cast<nlattr**>(table.data()), kMaxType,
                nullptr);
    ask.consume(table);
    return NL_OK;
}

void viaNl(const Ask& ask)
{
    nl_sock* socket = nl_socket_alloc();
    nl_msg* message = nlmsg_alloc_simple(ask.type, ask.flags);
    if (socket == nullptr || message == nullptr || nl_connect(socket, ask.protocol) < 0)
        fail("libnl socket");
    nlmsg_append(message, const_cast<unsigned char*>(ask.payload.data()), ask.payload.size(), NLMSG_ALIGNTO);
    for (const auto& [type, value] : ask.attributes)
        nla_put(message, type, static_cast<int>(value.size()), value.data());
    int result = 0;
    if (ask.consume == nullptr) {
        result = nl_send_sync(socket, message); // frees the message
    } else {
        nl_socket_disable_auto_ack(socket);
        nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, showMessageNl, const_cast<Ask*>(&ask));
        result = nl_send_auto(socket, message);
        if (result >= 0)
            result = nl_recvmsgs_default(socket);
        nlmsg_free(message);
    }
    if (result < 0)
        fail(std::string("libnl: ") + nl_geterror(result));
    nl_socket_free(socket);
}

// The jobs

struct Job {
    std::string name;
    std::vector<Ask> asks;
    std::function<void()> viaLibrary;
    std::function<void()> begin = [] {}; // before each time
    std::function<void()> check = [] {}; // after each time
};

double microseconds(const std::function<void()>& once, int times)
{
    const auto start = Clock::now();
    for (int i = 0; i < times; ++i)
        once();
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / times;
}

void measure(const Job& job)
{
    std::vector<Bytes> prebuilt;
    for (const Ask& ask : job.asks)
        prebuilt.push_back(assembled(ask));
    const auto each = [&job](void (*via)(const Ask&)) {
        return [&job, via] {
            job.begin();
            for (const Ask& ask : job.asks)
                via(ask);
            job.check();
        };
    };
    const std::function<void()> floor = [&] {
        job.begin();
        for (std::size_t i = 0; i < job.asks.size(); ++i)
            viaFloor(job.asks[i], prebuilt[i]);
        job.check();
    };
    const std::pair<const char*, std::function<void()>> columns[] = {{"library", [&] { job.viaLibrary(); }},
                                                                     {"libmnl", each(viaMnl)},
                                                                     {"libmnl, kept", each(viaKeptMnl)},
                                                                     {"libnl", each(viaNl)}};

    const double single = microseconds(floor, 3);
    const int times     = std::max(1, static_cast<int>(2000 / single)); // about 2 ms a round
    std::printf("%-28s floor %8.1f us", job.name.c_str(), microseconds(floor, times));
    for (const auto& [name, once] : columns) {
        std::vector<double> ratios;
        for (int round = 0; round < 101; ++round) {
            const bool first   = round % 2 == 0;
            const double one   = microseconds(first ? floor : once, times);
            const double other = microseconds(first ? once : floor, times);
            ratios.push_back(first ? other / one : one / other);
        }
        std::sort(ratios.begin(), ratios.end());
        std::printf("   %s %.2f (%.2f-%.2f)", name, ratios[50], ratios[25], ratios[75]);
    }
    std::puts("");
}

void run(const std::string& command)
{
    if (std::system(command.c_str()) != 0)
        fail(command);
}

// Rules of other priorities, added in batches.
void moreRules(int from, int to)
{
    run("seq " + std::to_string(from) + ' ' + std::to_string(to - 1) +
        " | sed 's/.*/rule add priority & fwmark & table 5/' | ip -batch -");
}

void moreLabels(int from, int to)
{
    run("seq " + std::to_string(from) + ' ' + std::to_string(to - 1) +
        R"( | awk '{ printf "addrlabel add prefix 2001:db8:%x::/64 label %d dev lo\n", $1, $1 }' | ip -batch -)");
}

Job labelJob()
{
    static sockaddr_storage address = {};
    address.ss_family               = AF_INET6;
    auto& bytes                     = reinterpret_cast<sockaddr_in6&>(address).sin6_addr;
    inet_pton(AF_INET6, "2001:db9::", &bytes);
    const ifaddrlblmsg entry = {AF_INET6, 0, 32, 0, 1, 0};
    const std::vector<std::pair<int, Bytes>> attributes{{IFAL_LABEL, bytesOf(77u)}, {IFAL_ADDRESS, bytesOf(bytes)}};
    const std::uint16_t acknowledged = NLM_F_REQUEST | NLM_F_ACK;
    return {"label, add and delete",
            {{NETLINK_ROUTE, RTM_NEWADDRLABEL, acknowledged | NLM_F_EXCL | NLM_F_CREATE, bytesOf(entry), attributes},
             {NETLINK_ROUTE, RTM_DELADDRLABEL, acknowledged, bytesOf(entry), attributes}},
            [] {
                if (Vesk::addrlabelAdd(&address, 32, 77, 1) != 0 || Vesk::addrlabelDel(&address, 32, 77, 1) != 0)
                    fail("label");
            }};
}

Job policyJob()
{
    static tro_ipsec_static_sa_config_ex_info_ind_msg_v01 record = {};
    static std::string here = "10.0.0.0/8", there = "10.1.0.0/16";
    record.spi_tx_valid = record.ipsec_protocol_valid = record.encap_mode_valid = 1;
    record.remote_addr_valid = record.local_addr_valid = 1;
    record.ipsec_protocol                              = 3;
    record.encap_mode                                  = 1;
    record.remote_addr.ip_type = record.local_addr.ip_type = 4;
    record.local_addr.addr[3] = record.remote_addr.addr[3] = 10;

    xfrm_userpolicy_info policy = {};
    inet_pton(AF_INET, "10.0.0.0", &policy.sel.saddr);
    inet_pton(AF_INET, "10.1.0.0", &policy.sel.daddr);
    policy.sel.family      = AF_INET;
    policy.sel.prefixlen_s = 8;
    policy.sel.prefixlen_d = 16;
    policy.priority        = 100;
    policy.dir             = XFRM_POLICY_OUT;
    policy.lft             = {XFRM_INF, XFRM_INF, XFRM_INF, XFRM_INF, 0, 0, 0, 0};
    xfrm_user_tmpl tmpl    = {};
    tmpl.id.proto          = IPPROTO_ESP;
    tmpl.family            = AF_INET;
    tmpl.mode              = XFRM_MODE_TUNNEL;
    tmpl.aalgos = tmpl.ealgos = tmpl.calgos = ~0u;
    tmpl.saddr.a4 = tmpl.id.daddr.a4 = htonl(10u << 24);
    xfrm_userpolicy_id id            = {};
    id.sel                           = policy.sel;
    id.dir                           = policy.dir;
    const std::uint16_t acknowledged = NLM_F_REQUEST | NLM_F_ACK;
    return {"policy, add and delete",
            {{NETLINK_XFRM, XFRM_MSG_NEWPOLICY, acknowledged, bytesOf(policy), {{XFRMA_TMPL, bytesOf(tmpl)}}},
             {NETLINK_XFRM, XFRM_MSG_DELPOLICY, acknowledged, bytesOf(id), {}}},
            [] {
                if (Vesk::addXFRMPolicies(record, here, there, 0, true) != 0 ||
                    Vesk::removeXFRMPolicies(here, there, 0, true) != 0)
                    fail("policy");
            }};
}

Job ruleJob(int among)
{
    static int found;
    fib_rule_hdr any = {};
    any.family       = AF_INET;
    return {"rule among " + std::to_string(among),
            {{NETLINK_ROUTE,
              RTM_GETRULE,
              NLM_F_REQUEST | NLM_F_DUMP,
              bytesOf(any),
              {},
              sizeof(fib_rule_hdr),
              [](std::vector<const nlattr*>& a) {
                  if (a[FRA_PRIORITY] != nullptr && u32Of(a[FRA_PRIORITY]) == 16000 && a[FRA_FWMARK] != nullptr &&
                      a[FRA_FWMASK] != nullptr && a[FRA_TABLE] != nullptr && u32Of(a[FRA_TABLE]) == 1001)
                      ++found;
              }}},
            [] {
                if (!Vesk::RTNetlinkGetRule("lo"))
                    fail("rule");
            },
            [] { found = 0; },
            [] {
                if (found != 1)
                    fail("no rule");
            }};
}

Job labelsJob(int over)
{
    static std::set<unsigned int> labels;
    ifaddrlblmsg any = {};
    any.ifal_family  = AF_INET6;
    return {"label over " + std::to_string(over),
            {{NETLINK_ROUTE,
              RTM_GETADDRLABEL,
              NLM_F_REQUEST | NLM_F_DUMP,
              bytesOf(any),
              {},
              sizeof(ifaddrlblmsg),
              [](std::vector<const nlattr*>& a) {
                  if (a[IFAL_LABEL] != nullptr)
                      labels.insert(u32Of(a[IFAL_LABEL]));
              }}},
            [] {
                unsigned int label = 0;
                if (Vesk::addrlabelGenerate(AF_INET6, false, &label) != 0)
                    fail("generate");
            },
            [] { labels.clear(); },
            [over] {
                if (labels.size() != static_cast<std::size_t>(over))
                    fail("labels: " + std::to_string(labels.size()));
            }};
}

} // namespace

int main()
try {
    setenv("VESK_LOG_LEVEL", "5", 1);
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (unshare(CLONE_NEWNET) != 0)
        fail("root alone may have a network of its own");
    run("ip link set lo up");
    std::puts("Time of the floor, and of the others as a multiple of it: median (middle half) of 101 pairs of rounds");

    measure(policyJob());
    measure(labelJob());
    run("ip rule add priority 16000 fwmark 0x10/0xff table 1001");
    int rules = 4; // the kernel's three and this
    for (const int among : {16, 1000, 10000}) {
        moreRules(20000 + rules, 20000 + among);
        rules = among;
        measure(ruleJob(among));
    }
    int labels = 10; // the kernel's
    for (const int over : {10, 1000, 10000}) {
        if (over > labels)
            moreLabels(100 + labels, 100 + over);
        labels = over;
        measure(labelsJob(over));
    }
} catch (const std::exception& error) {
    std::fprintf(stderr, "bench: %s\n", error.what());
    return 1;
}
