#include "Jobs.h"

#include "Columns.h"

#include <vesk/netlink.h>

#include <cstdlib>
#include <set>

#include <arpa/inet.h>
#include <linux/fib_rules.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <net/if.h>

namespace Bench {

namespace {

constexpr std::uint16_t kAcknowledged = NLM_F_REQUEST | NLM_F_ACK;
constexpr std::uint16_t kCreate       = kAcknowledged | NLM_F_EXCL | NLM_F_CREATE;
constexpr std::uint16_t kDump         = NLM_F_REQUEST | NLM_F_DUMP;

void run(const std::string& command)
{
    if (std::system(command.c_str()) != 0)
        fail(command);
}

void succeed(int result)
{
    if (result != 0)
        fail("the library reports failure");
}

Command words(const std::string& command)
{
    Command found;
    for (std::size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
        end = command.find(' ', at);
        found.push_back(command.substr(at, end - at));
    }
    return found;
}

// Lets `ip` do a line for each number that is missing; `there` is how many there are already.
void fillUp(int& there, int wanted, const std::string& lineForNumber)
{
    if (wanted > there)
        run("seq " + std::to_string(there + 1) + ' ' + std::to_string(wanted) + " | awk '{ printf \"" + lineForNumber +
            "\\n\", $1, $1 }' | ip -batch -");
    there = std::max(there, wanted);
}

// A pair of SAs, and the policy that leads into one of them

constexpr const char *kHere = "192.0.2.1", *kThere = "198.51.100.7";
constexpr std::uint32_t kTxSPI = 0x11223344, kRxSPI = 0x55667788;
constexpr std::uint32_t kCipherKey = 16, kHashKey = 32; // bytes

tro_ipsec_static_sa_config_ex_info_ind_msg_v01& record()
{
    static const auto filled = [] {
        tro_ipsec_static_sa_config_ex_info_ind_msg_v01 r = {};
        r.spi_tx_valid = r.spi_rx_valid = r.ipsec_protocol_valid = r.encap_mode_valid = 1;
        r.remote_addr_valid = r.local_addr_valid = r.hash_algo_valid = r.crypto_algo_valid = 1;
        r.crypto_key_rx_valid = r.crypto_key_tx_valid = r.hash_key_rx_valid = r.hash_key_tx_valid = 1;
        r.spi_tx                                                                                  = kTxSPI;
        r.spi_rx                                                                                  = kRxSPI;
        r.ipsec_protocol    = TRO_IPSEC_PROTOCOL_ESP_V01;
        r.encap_mode        = TRO_IPSEC_ENCAP_MODE_TUNNEL_V01;
        r.hash_algo         = TRO_IPSEC_HASH_ALGO_SHA256_V01;
        r.crypto_algo       = TRO_IPSEC_CRYPTO_ALGO_AES_V01;
        r.crypto_key_rx_len = r.crypto_key_tx_len = kCipherKey;
        r.hash_key_rx_len = r.hash_key_tx_len = kHashKey;
        const auto set                        = [](tro_ip_addr_type_v01& address, const char* text) {
            const std::uint32_t word = ntohl(inet_addr(text));
            address.ip_type          = TRO_IP_TYPE_IPV4_V01;
            address.addr_len         = sizeof word;
            std::memcpy(address.addr, &word, sizeof word);
        };
        set(r.local_addr, kHere);
        set(r.remote_addr, kThere);
        return r;
    }();
    static auto one = filled;
    return one;
}

Job policyJob()
{
    static std::string here = "10.0.0.0/8", there = "10.1.0.0/16";
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
    tmpl.id.spi            = htonl(kTxSPI);
    tmpl.family            = AF_INET;
    tmpl.mode              = XFRM_MODE_TUNNEL;
    tmpl.aalgos = tmpl.ealgos = tmpl.calgos = ~0u;
    tmpl.saddr.a4                           = inet_addr(kHere);
    tmpl.id.daddr.a4                        = inet_addr(kThere);
    xfrm_userpolicy_id id                   = {};
    id.sel                                  = policy.sel;
    id.dir                                  = policy.dir;
    const std::string selector              = "src " + here + " dst " + there + " dir out";
    return {"policy, add and delete",
            [] {},
            {{[] { succeed(Vesk::addXFRMPolicies(record(), here, there, 0, true)); },
              {{NETLINK_XFRM, XFRM_MSG_NEWPOLICY, kAcknowledged, bytesOf(policy), {{XFRMA_TMPL, bytesOf(tmpl)}}}},
              {words("ip xfrm policy add " + selector + " priority 100 tmpl src " + kHere + " dst " + kThere +
                     " proto esp mode tunnel")}},
             {[] { succeed(Vesk::removeXFRMPolicies(here, there, 0, true)); },
              {{NETLINK_XFRM, XFRM_MSG_DELPOLICY, kAcknowledged, bytesOf(id)}},
              {words("ip xfrm policy delete " + selector)}}},
            "ip xfrm policy | grep -q 'tmpl src 192.0.2.1 dst 198.51.100.7'"};
}

// The request that adds an SA, and the one that removes it.
std::pair<Ask, Ask> stateAsks(bool tx)
{
    xfrm_usersa_info state = {};
    state.saddr.a4         = inet_addr(tx ? kHere : kThere);
    state.id               = {{inet_addr(tx ? kThere : kHere)}, htonl(tx ? kTxSPI : kRxSPI), IPPROTO_ESP};
    state.lft              = {XFRM_INF, XFRM_INF, XFRM_INF, XFRM_INF, 0, 0, 0, 0};
    state.family           = AF_INET;
    state.mode             = XFRM_MODE_TUNNEL;
    state.flags            = static_cast<__u8>(XFRM_STATE_AF_UNSPEC | (tx ? XFRM_STATE_NOPMTUDISC : 0));
    xfrm_algo cipher       = {"cbc(aes)", 8 * kCipherKey};
    xfrm_algo_auth hash    = {"hmac(sha256)", 8 * kHashKey, 128};
    Bytes cipherBytes = bytesOf(cipher), hashBytes = bytesOf(hash);
    cipherBytes.resize(sizeof cipher + kCipherKey);
    hashBytes.resize(sizeof hash + kHashKey);
    Ask add = {NETLINK_XFRM,
               XFRM_MSG_NEWSA,
               kAcknowledged,
               bytesOf(state),
               {{XFRMA_ALG_CRYPT, cipherBytes}, {XFRMA_ALG_AUTH_TRUNC, hashBytes}}};
    if (tx) {
        add.attributes.emplace_back(XFRMA_SET_MARK, bytesOf(0x20001u));
        add.attributes.emplace_back(XFRMA_SET_MARK_MASK, bytesOf(0x200ffu));
    }
    const xfrm_usersa_id id = {state.id.daddr, state.id.spi, state.family, state.id.proto};
    return {add, {NETLINK_XFRM, XFRM_MSG_DELSA, kAcknowledged, bytesOf(id), {{XFRMA_SRCADDR, bytesOf(state.saddr)}}}};
}

Job statesJob(int among)
{
    static int strangers = 0, found = 0;
    const auto [addTx, removeTx] = stateAsks(true);
    const auto [addRx, removeRx] = stateAsks(false);
    const Ask find               = {NETLINK_XFRM,
                                    XFRM_MSG_GETSA,
                                    kDump,
                                    {},
                                    {},
                                    sizeof(xfrm_usersa_info),
                                    [](const nlmsghdr* message, const Table&) {
                          const auto spi = ntohl(static_cast<const xfrm_usersa_info*>(NLMSG_DATA(message))->id.spi);
                          found += spi == kTxSPI || spi == kRxSPI;
                      }};
    const std::string algorithms = std::string(" mode tunnel enc cbc(aes) 0x") + std::string(2 * kCipherKey, '0') +
                                   " auth-trunc hmac(sha256) 0x" + std::string(2 * kHashKey, '0') + " 128";
    const auto id = [](const char* from, const char* to, const std::string& spi) {
        return std::string(" src ") + from + " dst " + to + " proto esp spi " + spi;
    };
    const std::string tx = id(kHere, kThere, std::to_string(kTxSPI)), rx = id(kThere, kHere, std::to_string(kRxSPI));
    const std::string stranger = "xfrm state add" + id(kHere, kThere, "%d") + algorithms;
    return {"pair of SAs among " + std::to_string(among) + ", add and remove",
            [among, stranger] { fillUp(strangers, among, stranger); },
            {{[] { succeed(Vesk::addXFRMStates(record(), tro_technology_name_enum_v01{}, 1, 0xff)); },
              {addTx, addRx},
              {words("ip xfrm state add" + tx + algorithms + " output-mark 0x20001 mask 0x200ff"),
               words("ip xfrm state add" + rx + algorithms)}},
             {[] { succeed(Vesk::removeXFRMStates(record())); },
              {find, removeTx, removeRx},
              {words("ip xfrm state list"), words("ip xfrm state delete" + tx), words("ip xfrm state delete" + rx)}}},
            "ip xfrm state | grep -q 'spi 0x55667788'", // which is added last, and removed last
            [] { found = 0; },
            [] {
                if (found != 2)
                    fail("SAs found: " + std::to_string(found));
            }};
}

Job labelJob()
{
    static sockaddr_storage address = {};
    address.ss_family               = AF_INET6;
    auto& bytes                     = reinterpret_cast<sockaddr_in6&>(address).sin6_addr;
    inet_pton(AF_INET6, "2001:db9::", &bytes);
    const ifaddrlblmsg entry = {AF_INET6, 0, 32, 0, 1, 0};
    const std::vector<std::pair<int, Bytes>> attributes{{IFAL_LABEL, bytesOf(77u)}, {IFAL_ADDRESS, bytesOf(bytes)}};
    return {"label, add and delete",
            [] {},
            {{[] { succeed(Vesk::addrlabelAdd(&address, 32, 77, 1)); },
              {{NETLINK_ROUTE, RTM_NEWADDRLABEL, kCreate, bytesOf(entry), attributes}},
              {words("ip addrlabel add prefix 2001:db9::/32 label 77 dev lo")}},
             {[] { succeed(Vesk::addrlabelDel(&address, 32, 77, 1)); },
              {{NETLINK_ROUTE, RTM_DELADDRLABEL, kAcknowledged, bytesOf(entry), attributes}},
              {words("ip addrlabel del prefix 2001:db9::/32 label 77 dev lo")}}},
            "ip addrlabel | grep -q 'prefix 2001:db9::/32 dev lo label 77'"};
}

Job gatewayJob()
{
    static bool found = false;
    rtmsg route       = {};
    route.rtm_family  = AF_INET;
    route.rtm_dst_len = 32;
    route.rtm_flags   = RTM_F_LOOKUP_TABLE;
    return {"gateway of a route",
            [] {
                if (if_nametoindex("wan0") == 0)
                    run("ip link add wan0 type veth peer name wan1 && ip link set wan1 up && ip link set wan0 up && "
                        "ip address add 192.0.2.1/24 dev wan0 && ip route add default via 192.0.2.254");
            },
            {{[] {
                  const Vesk::RouterAddressResult result = Vesk::RTNetlinkGetRoute(kThere, 0, AF_INET);
                  if (result.status != 0 || result.gateway != "192.0.2.254")
                      fail("gateway");
              },
              {{NETLINK_ROUTE,
                RTM_GETROUTE,
                NLM_F_REQUEST,
                bytesOf(route),
                {{RTA_DST, bytesOf(inet_addr(kThere))}, {RTA_MARK, bytesOf(0u)}},
                sizeof route,
                [](const nlmsghdr*, const Table& a) {
                    found = a[RTA_GATEWAY] != nullptr && u32Of(a[RTA_GATEWAY]) == inet_addr("192.0.2.254");
                }}},
              {words(std::string("ip route get ") + kThere)}}},
            "",
            [] { found = false; },
            [] {
                if (!found)
                    fail("no gateway");
            }};
}

Job ruleJob(int among)
{
    static int found = 0, rules = 0;
    fib_rule_hdr any = {};
    any.family       = AF_INET;
    return {"rule among " + std::to_string(among),
            [among] {
                if (rules == 0) {
                    run("ip rule add priority 16000 fwmark 0x10/0xff table 1001"); // the index of lo is 1
                    rules = 4;                                                     // the kernel's three and this one
                }
                fillUp(rules, among, "rule add priority 2%05d fwmark %d table 5");
            },
            {{[] {
                  if (Vesk::RTNetlinkGetRule("lo") != std::pair(0x10u, 0xffu))
                      fail("rule");
              },
              {{NETLINK_ROUTE,
                RTM_GETRULE,
                kDump,
                bytesOf(any),
                {},
                sizeof any,
                [](const nlmsghdr*, const Table& a) {
                    found += a[FRA_PRIORITY] != nullptr && u32Of(a[FRA_PRIORITY]) == 16000 &&
                             a[FRA_FWMARK] != nullptr && a[FRA_FWMASK] != nullptr && a[FRA_TABLE] != nullptr &&
                             u32Of(a[FRA_TABLE]) == 1001;
                }}},
              {words("ip rule list")}}},
            "",
            [] { found = 0; },
            [] {
                if (found != 1)
                    fail("rules found: " + std::to_string(found));
            },
            [] {
                if (if_nametoindex("lo") != 1) // whose table is meant
                    fail("lo");
            }};
}

Job labelsJob(int over)
{
    static std::set<unsigned int> labels;
    static int there                   = 10; // the kernel's
    constexpr unsigned int kFirstLabel = 100011;
    ifaddrlblmsg any                   = {};
    any.ifal_family                    = AF_INET6;
    return {"label over " + std::to_string(over),
            [over] { fillUp(there, over, "addrlabel add prefix 2001:db8:%x::/64 label 1%05d dev lo"); },
            {{[over] {
                  unsigned int label = 0;
                  succeed(Vesk::addrlabelGenerate(AF_INET6, false, &label));
                  if (over > 10 ? label != kFirstLabel - 1 : label < 20) // below the first of ours, or a random one
                      fail("label generated: " + std::to_string(label));
              },
              {{NETLINK_ROUTE,
                RTM_GETADDRLABEL,
                kDump,
                bytesOf(any),
                {},
                sizeof any,
                [](const nlmsghdr*, const Table& a) {
                    if (a[IFAL_LABEL] != nullptr)
                        labels.insert(u32Of(a[IFAL_LABEL]));
                }}},
              {words("ip addrlabel list")}}},
            "",
            [] { labels.clear(); },
            [over] {
                if (labels.size() != static_cast<std::size_t>(over))
                    fail("labels found: " + std::to_string(labels.size()));
            }};
}

} // namespace

const std::vector<Job>& jobs()
{
    static const auto all = [] {
        std::vector<Job> made{policyJob(), labelJob(), gatewayJob()};
        for (int among : {16, 100, 1000, 3000, 10000})
            made.push_back(ruleJob(among));
        for (int over : {10, 100, 1000, 3000, 10000})
            made.push_back(labelsJob(over));
        for (int among : {10, 100, 300, 1000})
            made.push_back(statesJob(among));
        for (Job& job : made)
            for (Step& step : job.steps)
                for (Ask& ask : step.asks)
                    prebuild(ask);
        return made;
    }();
    return all;
}

} // namespace Bench
