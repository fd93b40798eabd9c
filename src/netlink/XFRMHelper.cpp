// Requests to NETLINK_XFRM, made from the modem's record of a pair of security associations (SAs):
//
//     XFRM_MSG_NEWSA, UPDSA   xfrm_usersa_info      XFRMA_ALG_CRYPT, ALG_AUTH_TRUNC, [ENCAP, SET_MARK, SET_MARK_MASK]
//     XFRM_MSG_DELSA          xfrm_usersa_id        XFRMA_SRCADDR
//     XFRM_MSG_GETSA (dump)
//     XFRM_MSG_NEWAE          xfrm_aevent_id        XFRMA_SET_MARK, SET_MARK_MASK, REPLAY_VAL or REPLAY_ESN_VAL
//     XFRM_MSG_NEWPOLICY      xfrm_userpolicy_info  [XFRMA_TMPL]
//     XFRM_MSG_DELPOLICY      xfrm_userpolicy_id
//     XFRM_MSG_MIGRATE        xfrm_userpolicy_id    XFRMA_MIGRATE, [ENCAP]
//
// In this order: the translation of the record, installing SAs, finding them again to remove or update them, policies,
// migration.
//
// The record has two halves: one outgoing SA, which the log calls TX, and one incoming, RX. "Bexa" in a function's name
// is the modem's side: it translates what the record says. The names stay, since log lines begin with them.

#include <vesk/netlink.h>

#include "Checked.h"
#include "Log.h"
#include "Message.h"
#include "Numbers.h"
#include "WholeRequest.h"
#include "Wipe.h"
#include "Zeroed.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <linux/udp.h>
#include <linux/xfrm.h>

namespace Vesk {

namespace {

constexpr char kLogSource[] = "src/netlink/XFRMHelper";

using SaRecord   = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;
using Technology = tro_technology_name_enum_v01;

constexpr std::size_t kAlgorithmCapacity = 512;

// Keys and addresses have lines in the log, which show them empty.
constexpr const char* kUnsaid = "";

// The decoder of the modem's messages and this file must agree on where the fields lie.
static_assert(sizeof(tro_ip_addr_type_v01) == 24 && sizeof(SaRecord) == 2452);
static_assert(offsetof(SaRecord, spi_tx) == 12 && offsetof(SaRecord, local_addr) == 64);
static_assert(offsetof(SaRecord, crypto_key_rx) == 112 && offsetof(SaRecord, hash_key_tx) == 1428);

struct Cipher {
    std::uint32_t code;
    const char* name;
    const char* counterModeName; // null: the cipher has no modes
};

constexpr Cipher kCiphers[] = {
    {TRO_IPSEC_CRYPTO_ALGO_DES_CBC_V01, "cbc(des)", nullptr},
    {TRO_IPSEC_CRYPTO_ALGO_3DES_CBC_V01, "cbc(des3_ede)", nullptr},
    {TRO_IPSEC_CRYPTO_ALGO_AES_V01, "cbc(aes)", "rfc3686(ctr(aes))"},
    {TRO_IPSEC_CRYPTO_ALGO_AES_19_V01, "cbc(aes)", "rfc3686(ctr(aes))"},
};

struct Hash {
    std::uint32_t code;
    const char* name;
    unsigned int truncation; // bits
};

constexpr Hash kHashes[] = {
    {TRO_IPSEC_HASH_ALGO_SHA1_V01, "hmac(sha1)", 96},      {TRO_IPSEC_HASH_ALGO_SHA256_V01, "hmac(sha256)", 128},
    {TRO_IPSEC_HASH_ALGO_MD5_V01, "hmac(md5)", 96},        {TRO_IPSEC_HASH_ALGO_AES_XCBC_V01, "xcbc(aes)", 96},
    {TRO_IPSEC_HASH_ALGO_SHA384_V01, "hmac(sha384)", 192}, {TRO_IPSEC_HASH_ALGO_SHA512_V01, "hmac(sha512)", 256},
};

// The entry of a table with this code, or null.
template <typename Entry, std::size_t size>
const Entry* lookUp(const Entry (&table)[size], std::uint32_t code)
{
    const Entry* found = std::find_if(table, table + size, [code](const Entry& entry) { return entry.code == code; });
    return found != table + size ? found : nullptr;
}

// The translation of the record

struct Key {
    std::uint8_t valid;
    std::uint32_t length; // bytes
    const std::uint8_t* bytes;
    std::size_t field; // bytes that the record has for it
};

enum class Direction {
    Tx,
    Rx
};

// What the SA of one direction takes from the record.
struct Half {
    Direction direction;
    const char* name;
    std::uint8_t spiValid;
    std::uint32_t spi;
    const tro_ip_addr_type_v01& source;
    const tro_ip_addr_type_v01& destination;
    Key cipherKey;
    Key hashKey;
    std::uint16_t sourcePort; // both in network order
    std::uint16_t destinationPort;
};

Half halfOf(const SaRecord& record, Direction direction)
{
    const auto& r = record;
    if (direction == Direction::Tx)
        return {direction,
                "TX",
                r.spi_tx_valid,
                r.spi_tx,
                r.local_addr,
                r.remote_addr,
                {r.crypto_key_tx_valid, r.crypto_key_tx_len, r.crypto_key_tx, sizeof r.crypto_key_tx},
                {r.hash_key_tx_valid, r.hash_key_tx_len, r.hash_key_tx, sizeof r.hash_key_tx},
                r.udp_encap_port,
                htons(kNatTraversal)};
    return {direction,
            "RX",
            r.spi_rx_valid,
            r.spi_rx,
            r.remote_addr,
            r.local_addr,
            {r.crypto_key_rx_valid, r.crypto_key_rx_len, r.crypto_key_rx, sizeof r.crypto_key_rx},
            {r.hash_key_rx_valid, r.hash_key_rx_len, r.hash_key_rx, sizeof r.hash_key_rx},
            htons(kNatTraversal),
            r.udp_encap_port};
}

// Zero for an address that is neither IPv4 nor IPv6.
__u16 familyOf(const tro_ip_addr_type_v01& address)
{
    switch (address.ip_type) {
    case TRO_IP_TYPE_IPV4_V01:
        return AF_INET;
    case TRO_IP_TYPE_IPV6_V01:
        return AF_INET6;
    default:
        return AF_UNSPEC;
    }
}

// In the log every family but IPv4, none included, reads as IPv6.
const char* familySuffix(__u16 family)
{
    return family == AF_INET ? "" : "6";
}

// The modem keeps an IPv4 address as a word in host order.
__be32 wordOf(const tro_ip_addr_type_v01& address)
{
    std::uint32_t word;
    std::memcpy(&word, address.addr, sizeof word);
    return htonl(word);
}

// An address of unknown type is logged and stays zero. The request is sent all the same.
void setXFRMAddrFromBexa(const tro_ip_addr_type_v01& from, xfrm_address_t* to)
{
    if (from.ip_type == TRO_IP_TYPE_IPV6_V01)
        std::memcpy(to->a6, from.addr, std::min<std::size_t>(from.addr_len, sizeof from.addr));
    else if (from.ip_type == TRO_IP_TYPE_IPV4_V01)
        to->a4 = wordOf(from);
    else
        LOG(failure, "%s(): invalid addr family %u\n", from.ip_type);
}

int setXFRMIdFromBexa(const SaRecord& record, const Half& half, xfrm_address_t* saddr, xfrm_id* id)
{
    if (record.remote_addr_valid == 0 || record.local_addr_valid == 0 || record.ipsec_protocol_valid == 0)
        return FAIL_WITH(EINVAL, "%s(): IPSEC addresses or protocol is marked as invalid\n");
    if (half.spiValid == 0)
        return FAIL_WITH(EINVAL, "%s(): %s SPI value is marked as invalid\n", half.name);

    const std::uint32_t protocol = record.ipsec_protocol & 0xff; // kept: elsewhere the whole value counts
    if (protocol != TRO_IPSEC_PROTOCOL_AH_V01 && protocol != TRO_IPSEC_PROTOCOL_ESP_V01)
        return FAIL_WITH(EINVAL, "%s(): invalid IPSEC protocol %d\n", static_cast<int>(record.ipsec_protocol));
    id->proto = protocol == TRO_IPSEC_PROTOCOL_AH_V01 ? IPPROTO_AH : IPPROTO_ESP;
    LOG(detail, "%s():\t..id.proto = %s\n", id->proto == IPPROTO_AH ? "ah" : "esp");
    LOG(detail, "%s():\t..saddr = %s\n", kUnsaid);
    LOG(detail, "%s():\t..id.daddr = %s\n", kUnsaid);
    setXFRMAddrFromBexa(half.source, saddr);
    setXFRMAddrFromBexa(half.destination, &id->daddr);
    LOG(detail, "%s():\t..id.spi = 0x%x\n", half.spi);
    id->spi = htonl(half.spi);
    return 0;
}

int setXFRMMode(const SaRecord& record, __u8* mode)
{
    if (record.encap_mode_valid == 0)
        return FAIL_WITH(EINVAL, "%s(): encapsulation mode marked as invalid\n");
    const bool tunnel = record.encap_mode == TRO_IPSEC_ENCAP_MODE_TUNNEL_V01;
    if (!tunnel && record.encap_mode != TRO_IPSEC_ENCAP_MODE_TRANSPORT_V01)
        return FAIL_WITH(EINVAL, "%s(): invalid XFRM mode 0x%x\n", record.encap_mode);
    *mode = tunnel ? XFRM_MODE_TUNNEL : XFRM_MODE_TRANSPORT;
    LOG(detail, "%s():\t..mode = %s\n", tunnel ? "tunnel" : "transport");
    return 0;
}

void setXFRMEncap(const SaRecord& record, const Half& half, NetlinkMessage& msg)
{
    if (record.udp_encap_port_valid == 0 || record.udp_encap_valid == 0 || record.udp_encap == 0)
        return LOG(notice, "%s(): not setting encapsulation params\n");

    static_assert(sizeof(xfrm_encap_tmpl) == 24);
    auto encap        = zeroed<xfrm_encap_tmpl>();
    encap.encap_type  = UDP_ENCAP_ESPINUDP;
    encap.encap_sport = half.sourcePort;
    encap.encap_dport = half.destinationPort;
    LOG(detail, "%s():\t..encap = %u -> %u\n", ntohs(encap.encap_sport), ntohs(encap.encap_dport));
    msg.addNLAttribute(XFRMA_ENCAP, sizeof encap, &encap);
}

// An xfrm_algo or xfrm_algo_auth with its key behind it; wiped when it has been copied into the request. A key that
// does not fit its field of the record, or this buffer, ends the process.
template <typename Algorithm>
class AlgorithmWithKey {
public:
    AlgorithmWithKey(const char* name, const Key& key, const char* operation = __builtin_FUNCTION())
    {
        limitOrAbort(key.length, std::min(key.field, sizeof bytes - sizeof(Algorithm)), operation);
        std::strncpy(head().alg_name, name, sizeof head().alg_name - 1);
        head().alg_key_len = key.length * 8;
        std::memcpy(bytes + sizeof(Algorithm), key.bytes, key.length);
        wipeRegisters();
    }
    ~AlgorithmWithKey() { wipe(bytes, sizeof bytes); }
    AlgorithmWithKey(const AlgorithmWithKey&)            = delete;
    AlgorithmWithKey& operator=(const AlgorithmWithKey&) = delete;

    Algorithm& head() { return *reinterpret_cast<Algorithm*>(bytes); }
    void addTo(NetlinkMessage& msg, int type)
    {
        msg.addNLAttribute(type, static_cast<int>(sizeof(Algorithm) + head().alg_key_len / 8), bytes);
        wipeRegisters();
    }

private:
    alignas(Algorithm) unsigned char bytes[kAlgorithmCapacity] = {};
};

int setXFRMCryptoAlg(const SaRecord& record, const Half& half, NetlinkMessage& msg)
{
    if (record.crypto_algo_valid == 0)
        return FAIL_WITH(EINVAL, "%s(): crypto algorithm marked as invalid\n");
    if (half.cipherKey.valid == 0)
        return FAIL_WITH(EINVAL, "%s(): %s crypto key marked as invalid\n", half.name);
    const Cipher* cipher = lookUp(kCiphers, record.crypto_algo);
    if (cipher == nullptr)
        return FAIL_WITH(EINVAL, "%s(): invalid crypto algo %d\n", static_cast<int>(record.crypto_algo));
    const bool anyMode       = cipher->counterModeName != nullptr && record.aes_mode_valid != 0;
    const std::uint32_t mode = anyMode ? record.aes_mode : std::uint32_t{TRO_IPSEC_AES_MODE_CBC_V01};
    if (mode != TRO_IPSEC_AES_MODE_CBC_V01 && mode != TRO_IPSEC_AES_MODE_CTR_V01)
        return FAIL_WITH(EINVAL, "%s(): invalid AES mode %d\n", static_cast<int>(mode));

    static_assert(sizeof(xfrm_algo) == 68);
    const bool counter = mode == TRO_IPSEC_AES_MODE_CTR_V01;
    AlgorithmWithKey<xfrm_algo> algorithm(counter ? cipher->counterModeName : cipher->name, half.cipherKey);
    LOG(detail, "%s():\t..crypt.alg_name = %s\n", algorithm.head().alg_name);
    LOG(detail, "%s():\t..crypt.alg_key_len = %u\n", algorithm.head().alg_key_len);
    LOG(detail, "%s():\t..crypt.alg_key = %s\n", kUnsaid);
    algorithm.addTo(msg, XFRMA_ALG_CRYPT);
    return 0;
}

int setXFRMAuthAlg(const SaRecord& record, const Half& half, NetlinkMessage& msg)
{
    if (record.hash_algo_valid == 0)
        return FAIL_WITH(EINVAL, "%s(): hash algo marked as invalid\n");
    if (half.hashKey.valid == 0)
        return half.direction == Direction::Tx ? FAIL_WITH(EINVAL, "%s(): TX hash key marked as invalid\n")
                                               : FAIL_WITH(EINVAL, "%s(): RX hash key marked as invalid\n");
    const Hash* hash = lookUp(kHashes, record.hash_algo);
    if (hash == nullptr)
        return FAIL_WITH(EINVAL, "%s(): invalid autho algo %d\n", static_cast<int>(record.hash_algo)); // sic

    static_assert(sizeof(xfrm_algo_auth) == 72);
    AlgorithmWithKey<xfrm_algo_auth> algorithm(hash->name, half.hashKey);
    algorithm.head().alg_trunc_len = hash->truncation;
    LOG(detail, "%s():\t..auth.algo = %s\n", algorithm.head().alg_name);
    LOG(detail, "%s():\t..auth.trunc_len = %u\n", algorithm.head().alg_trunc_len);
    LOG(detail, "%s():\t..auth.key_len = %u\n", algorithm.head().alg_key_len);
    LOG(detail, "%s():\t..auth.key = %s\n", kUnsaid);
    algorithm.addTo(msg, XFRMA_ALG_AUTH_TRUNC);
    return 0;
}

void setNoLimits(xfrm_lifetime_cfg& lifetime)
{
    lifetime.soft_byte_limit   = XFRM_INF;
    lifetime.hard_byte_limit   = XFRM_INF;
    lifetime.soft_packet_limit = XFRM_INF;
    lifetime.hard_packet_limit = XFRM_INF;
}

// Installing SAs

int addXFRMState(const SaRecord& record, Direction direction, Technology technology, unsigned int mark,
                 unsigned int mask, unsigned short msgType)
{
    const Half half = halfOf(record, direction);
    const bool tx   = direction == Direction::Tx;

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_XFRM, msgType, kAcknowledged);

    static_assert(sizeof(xfrm_usersa_info) == 224);
    auto sinfo = zeroed<xfrm_usersa_info>();
    setNoLimits(sinfo.lft);
    if (setXFRMIdFromBexa(record, half, &sinfo.saddr, &sinfo.id) != 0)
        return FAIL("%s(): setting XFRM state ID failed\n");
    if (setXFRMMode(record, &sinfo.mode) != 0)
        return FAIL("%s(): setting XFRM state mode failed\n");
    if (setXFRMCryptoAlg(record, half, msg) != 0)
        return FAIL("%s(): setting XFRM state crypto failed\n");
    if (setXFRMAuthAlg(record, half, msg) != 0)
        return FAIL("%s(): setting XFRM state auth failed\n");
    setXFRMEncap(record, half, msg);

    sinfo.flags = XFRM_STATE_AF_UNSPEC | (tx ? XFRM_STATE_NOPMTUDISC : 0);
    LOG(detail, "%s():\t..sinfo.flags = 0x%x\n", sinfo.flags);
    sinfo.family = familyOf(half.source);
    LOG(detail, "%s():\t..sinfo.family = AF_INET%s\n", familySuffix(sinfo.family));

    if (tx) {
        LOG(detail, "%s():\t..output_mark = 0x%x\n", mark | kOutputMark);
        LOG(detail, "%s():\t..output_mask = 0x%x\n", mask | kOutputMark);
        msg.addNLAttribute(XFRMA_SET_MARK, mark | kOutputMark);
        msg.addNLAttribute(XFRMA_SET_MARK_MASK, mask | kOutputMark);
    } else if (technology == TRO_TECHNOLOGY_NAME_MARKED_RX_V01) {
        LOG(detail, "%s():\t..output_mark = 0x%x\n", kMarkedRx);
        msg.addNLAttribute(XFRMA_SET_MARK, kMarkedRx);
    }

    msg.addMsgPayload(sizeof sinfo, &sinfo);
    const int result = transactWhole(msg);
    if (result != 0)
        LOG(failure, "%s(): sending XFRM state failed\n");
    return result;
}

// Finding SAs again

// 0 when the address is the modem's, 1 otherwise.
int XFRMAddrCmp(const xfrm_address_t* address, unsigned short family, const tro_ip_addr_type_v01* modemAddress)
{
    if (family == 0 || family != familyOf(*modemAddress))
        return 1;
    if (family == AF_INET6)
        return std::memcmp(address->a6, modemAddress->addr, sizeof address->a6) == 0 ? 0 : 1;
    return address->a4 == wordOf(*modemAddress) ? 0 : 1;
}

// Whether an SA has the SPI, or both addresses, that the record has for a direction.
bool hasSPI(const xfrm_usersa_info& state, const Half& half)
{
    return state.id.spi == htonl(half.spi);
}

bool connects(const xfrm_usersa_info& state, const Half& half)
{
    return XFRMAddrCmp(&state.saddr, state.family, &half.source) == 0 &&
           XFRMAddrCmp(&state.id.daddr, state.family, &half.destination) == 0;
}

// Says which SA of the record a dumped message shows, if any, and copies it into `state`. What does not match is logged
// under the name of the callback that asks. The record's values are compared as they are, whatever their flags say.
std::optional<Direction> matchXFRMState(nlmsghdr* message, const SaRecord& record, xfrm_usersa_info& state,
                                        const char* callback)
{
    constexpr auto none = std::nullopt;
    if (message->nlmsg_type != XFRM_MSG_NEWSA)
        return YIELD_AS(none, verbose, callback, "%s(): ignoring non-XFRM state message\n");
    if (message->nlmsg_len < kMessageSize<xfrm_usersa_info>)
        return YIELD_AS(none, failure, callback, "%s(): invalid XFRM state message received\n");
    state = payloadOf<xfrm_usersa_info>(message);

    if (state.id.proto != IPPROTO_AH && state.id.proto != IPPROTO_ESP)
        return YIELD_AS(none, verbose, callback, "%s(): ignoring non-ESP/AH protocol");
    const auto protocol = state.id.proto == IPPROTO_AH ? TRO_IPSEC_PROTOCOL_AH_V01 : TRO_IPSEC_PROTOCOL_ESP_V01;
    if (record.ipsec_protocol != protocol)
        return YIELD_AS(none, verbose, callback, "%s(): ignoring non-matching protocol");

    const Half tx = halfOf(record, Direction::Tx), rx = halfOf(record, Direction::Rx);
    if (hasSPI(state, tx)) {
        if (connects(state, tx))
            return Direction::Tx;
        return YIELD_AS(none, verbose, callback, "%s(): ignoring non-matching TX address\n");
    }
    if (hasSPI(state, rx)) {
        if (connects(state, rx))
            return Direction::Rx;
        return YIELD_AS(none, verbose, callback, "%s(): ignoring non-matching RX address\n");
    }
    return YIELD_AS(none, verbose, callback, "%s(): ignoring non-matching SPI\n");
}

void removeXFRMStateCb(nlmsghdr* message, void* context) noexcept
{
    const auto& record = *static_cast<const SaRecord*>(context);
    xfrm_usersa_info state;
    const auto direction = matchXFRMState(message, record, state, __func__);
    if (!direction)
        return;

    if (direction == Direction::Tx)
        LOG(notice, "%s(): removing TX XFRM state\n");
    else
        LOG(notice, "%s(): removing RX XFRM state\n");
    LOG(detail, "%s():\t..src %s\n", kUnsaid);
    LOG(detail, "%s():\t..dst %s\n", kUnsaid);
    LOG(detail, "%s():\t..proto %u\n", state.id.proto);
    LOG(detail, "%s():\t..spi 0x%x\n", ntohl(state.id.spi));

    static_assert(sizeof(xfrm_usersa_id) == 24);
    auto id   = zeroed<xfrm_usersa_id>();
    id.daddr  = state.id.daddr;
    id.spi    = state.id.spi;
    id.family = state.family;
    id.proto  = state.id.proto;

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_DELSA, kAcknowledged);
    msg.addMsgPayload(sizeof id, &id);
    msg.addNLAttribute(XFRMA_SRCADDR, sizeof state.saddr, &state.saddr);
    if (transactWhole(msg) != 0)
        LOG(failure, "%s(): deleting XFRM state failed\n");
}

// An xfrm_replay_state, or an xfrm_replay_state_esn without its bitmap.
static_assert(sizeof(xfrm_replay_state) == 12 && sizeof(xfrm_replay_state_esn) == 24);
using ReplayRecord = std::array<unsigned char, sizeof(xfrm_replay_state_esn)>;

// What an update finds out about the installed SAs before it changes them.
struct XFRMSeqMatchCtx {
    const SaRecord& record;
    bool txEsn;
    bool rxEsn; // never set, see keepReplay
    unsigned int mark;
    unsigned int mask;
    xfrm_usersa_info txState;
    xfrm_usersa_info rxState;
    ReplayRecord txReplay;
    ReplayRecord rxReplay;
};

// Kept: a record of either kind is stored for TX, whichever SA it belongs to, and an extended one of RX clears RX's
// flag. So TX gets the counters of the SA that was dumped last, and RX zeros.
void keepReplay(XFRMSeqMatchCtx& context, Direction direction, unsigned int type, nlattr* attribute,
                const char* callback)
{
    if (type == XFRMA_REPLAY_VAL && attributeLength(attribute) >= sizeof(xfrm_replay_state)) {
        xfrm_replay_state replay;
        std::memcpy(&replay, attributeValue(attribute), sizeof replay);
        LOG_AS(notice, callback, "%s(): Replay Seq: seq: %u oseq: %u", replay.seq, replay.oseq);
        std::memcpy(context.txReplay.data(), &replay, sizeof replay);
    }
    if (type == XFRMA_REPLAY_ESN_VAL && attributeLength(attribute) >= sizeof(xfrm_replay_state_esn)) {
        xfrm_replay_state_esn replay;
        std::memcpy(&replay, attributeValue(attribute), sizeof replay);
        LOG_AS(notice, callback, "%s(): Replay Seq ESN: seq: %u oseq: %u", replay.seq, replay.oseq);
        std::memcpy(context.txReplay.data(), &replay, sizeof replay);
        if (direction == Direction::Tx)
            context.txEsn = true;
        else
            context.rxEsn = false;
    }
}

void queryXFRMStateCb(nlmsghdr* message, void* given) noexcept
{
    auto& context = *static_cast<XFRMSeqMatchCtx*>(given);
    xfrm_usersa_info state;
    const auto direction = matchXFRMState(message, context.record, state, __func__);
    if (!direction)
        return;

    if (direction == Direction::Tx) {
        LOG(notice, "%s(): Setting TX seq");
        context.txState = state;
    } else {
        LOG(notice, "%s(): Setting RX seq");
        context.rxState = state;
    }

    constexpr unsigned int start = kMessageSize<xfrm_usersa_info>;
    auto* first                  = reinterpret_cast<nlattr*>(reinterpret_cast<unsigned char*>(message) + start);
    const char* const name       = __func__;
    forEachAttribute(
        first, subOrAbort<unsigned int>(message->nlmsg_len, start), XFRMA_REPLAY_ESN_VAL,
        [&](unsigned int type, nlattr* attribute) { keepReplay(context, *direction, type, attribute, name); });
}

int updateXFRMSeq(XFRMSeqMatchCtx& context, Direction direction)
{
    const bool tx                 = direction == Direction::Tx;
    const xfrm_usersa_info& state = tx ? context.txState : context.rxState;
    const bool esn                = tx ? context.txEsn : context.rxEsn;
    ReplayRecord& replay          = tx ? context.txReplay : context.rxReplay;

    static_assert(sizeof(xfrm_aevent_id) == 48);
    auto aevent         = zeroed<xfrm_aevent_id>();
    aevent.sa_id.daddr  = state.id.daddr;
    aevent.sa_id.spi    = state.id.spi;
    aevent.sa_id.family = state.family;
    aevent.sa_id.proto  = state.id.proto;

    // Kept: without NLM_F_REQUEST. A mainline kernel acknowledges this and leaves the counters alone, which keeps
    // traffic going, since the update of an SA does not touch them either.
    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_NEWAE, NLM_F_ACK | NLM_F_REPLACE);
    msg.addNLAttribute(XFRMA_SET_MARK, context.mark);
    msg.addNLAttribute(XFRMA_SET_MARK_MASK, context.mask);
    if (esn)
        msg.addNLAttribute(XFRMA_REPLAY_ESN_VAL, sizeof(xfrm_replay_state_esn), replay.data());
    else
        msg.addNLAttribute(XFRMA_REPLAY_VAL, sizeof(xfrm_replay_state), replay.data());
    msg.addMsgPayload(sizeof aevent, &aevent);
    const int result = transactWhole(msg);
    if (result != 0)
        LOG(failure, "%s(): sending XFRM state failed\n");
    return result;
}

// Policies

// "address" or "address/prefix". A prefix that is no number counts as 0.
int setXFRMAddress(xfrm_address_t* address, __u8* prefixLength, __u16* family, const std::string& text)
{
    char buffer[64] = {};
    std::strncpy(buffer, text.c_str(), sizeof buffer - 1);
    char* const slash = std::strchr(buffer, '/');
    if (slash != nullptr)
        *slash = '\0';

    const bool v6 = std::strchr(buffer, ':') != nullptr;
    if (v6 && inet_pton(AF_INET6, buffer, address) < 1)
        return FAIL_WITH(EINVAL, "%s(): invalid IPv6 address %s\n", buffer);
    if (!v6 && inet_pton(AF_INET, buffer, address) < 1)
        return FAIL_WITH(EINVAL, "%s(): invalid IPv4 address %s\n", buffer);

    *family       = v6 ? AF_INET6 : AF_INET;
    *prefixLength = slash != nullptr ? static_cast<__u8>(std::strtoul(slash + 1, nullptr, 0)) : v6 ? 128 : 32;
    return 0;
}

// The selector must be zeroed. Of two families the destination's wins.
int setXFRMSel(xfrm_selector* sel, const std::string& source, const std::string& destination, unsigned char protocol)
{
    if (!source.empty()) {
        if (setXFRMAddress(&sel->saddr, &sel->prefixlen_s, &sel->family, source) != 0)
            return FAIL("%s(): setting selector source address failed\n");
        LOG(detail, "%s()\t..sel.saddr = %s/%u\n", source.c_str(), sel->prefixlen_s);
    } else if (destination.empty()) {
        return FAIL_WITH(EINVAL, "%s(): selector must have either source or destination\n");
    }
    if (!destination.empty()) {
        if (setXFRMAddress(&sel->daddr, &sel->prefixlen_d, &sel->family, destination) != 0)
            return FAIL("%s(): setting selector destination address failed\n");
        LOG(detail, "%s()\t..sel.daddr = %s/%u\n", destination.c_str(), sel->prefixlen_d);
    }
    if (protocol != 0) {
        sel->proto = protocol;
        LOG(detail, "%s()\t..sel.proto = %u\n", protocol);
    }
    return 0;
}

int setXFRMTmpl(const SaRecord& record, const Half& half, xfrm_user_tmpl* tmpl)
{
    if (setXFRMIdFromBexa(record, half, &tmpl->saddr, &tmpl->id) != 0)
        return FAIL("%s(): setting template ID failed\n");
    if (setXFRMMode(record, &tmpl->mode) != 0)
        return FAIL("%s(): setting templade mode failed\n"); // sic
    tmpl->family = familyOf(half.source);
    LOG(detail, "%s(): \t..tmpl.family = AF_INET%s\n", familySuffix(tmpl->family));
    tmpl->aalgos = tmpl->ealgos = tmpl->calgos = ~__u32{0}; // any algorithm
    return 0;
}

xfrm_userpolicy_info allowingPolicy(unsigned char direction, __u32 priority)
{
    static_assert(sizeof(xfrm_userpolicy_info) == 168);
    auto policy     = zeroed<xfrm_userpolicy_info>();
    policy.priority = priority;
    policy.dir      = direction;
    setNoLimits(policy.lft);
    return policy;
}

// The SA that a policy leads to.
Direction directionOf(unsigned char policyDirection)
{
    return policyDirection == XFRM_POLICY_OUT ? Direction::Tx : Direction::Rx;
}

int addXFRMPolicy(const SaRecord& record, const std::string& source, const std::string& destination,
                  unsigned char protocol, unsigned char direction)
{
    auto policy = allowingPolicy(direction, kPolicyPriority);
    if (setXFRMSel(&policy.sel, source, destination, protocol) != 0)
        return FAIL("%s(): setting policy selector failed\n");
    static_assert(sizeof(xfrm_user_tmpl) == 64);
    auto tmpl = zeroed<xfrm_user_tmpl>();
    if (setXFRMTmpl(record, halfOf(record, directionOf(direction)), &tmpl) != 0)
        return FAIL("%s(): setting policy templace failed\n"); // sic

    NetlinkMessage msg;
    msg.addNLAttribute(XFRMA_TMPL, sizeof tmpl, &tmpl);
    msg.addMsgPayload(sizeof policy, &policy);
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_NEWPOLICY, kAcknowledged);
    const int result = transactWhole(msg);
    if (result != 0)
        LOG(failure, "%s(): sending XFRM policy failed\n");
    return result;
}

int removeXFRMPolicy(const std::string& source, const std::string& destination, unsigned char protocol,
                     unsigned char direction)
{
    static_assert(sizeof(xfrm_userpolicy_id) == 64);
    auto id = zeroed<xfrm_userpolicy_id>();
    id.dir  = direction;
    if (setXFRMSel(&id.sel, source, destination, protocol) != 0)
        return FAIL("%s(): setting policy selector failed\n");

    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_DELPOLICY, kAcknowledged);
    msg.addMsgPayload(sizeof id, &id);
    const int result = transactWhole(msg);
    if (result != 0)
        LOG(failure, "%s(): sending XFRM policy delete failed\n");
    return result;
}

// Migration

// Whether the peer is the same; whatever `addr_len` says, an IPv6 address has 16 bytes.
bool sameAddress(const tro_ip_addr_type_v01& one, const tro_ip_addr_type_v01& other)
{
    const __u16 family     = familyOf(one);
    const std::size_t size = family == AF_INET6 ? sizeof(in6_addr) : sizeof(in_addr);
    return family != AF_UNSPEC && one.ip_type == other.ip_type && std::memcmp(one.addr, other.addr, size) == 0;
}

int migrateOneXFRM(const SaRecord& from, const SaRecord& to, const std::string& localText,
                   const std::string& remoteText, unsigned char protocol, unsigned char direction)
{
    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_MIGRATE, kAcknowledged);

    static_assert(sizeof(xfrm_user_migrate) == 76);
    auto entry = zeroed<xfrm_user_migrate>();
    if (to.ipsec_protocol != TRO_IPSEC_PROTOCOL_AH_V01 && to.ipsec_protocol != TRO_IPSEC_PROTOCOL_ESP_V01)
        return FAIL_WITH(EINVAL, "%s(): invalid IPSEC protocol %d\n", static_cast<int>(to.ipsec_protocol));
    entry.proto = to.ipsec_protocol == TRO_IPSEC_PROTOCOL_AH_V01 ? IPPROTO_AH : IPPROTO_ESP;

    const bool outbound = direction == XFRM_POLICY_OUT;
    if (outbound) {
        setXFRMAddrFromBexa(from.remote_addr, &entry.old_daddr);
        setXFRMAddrFromBexa(from.remote_addr, &entry.new_daddr);
        setXFRMAddrFromBexa(from.local_addr, &entry.old_saddr);
        setXFRMAddrFromBexa(to.local_addr, &entry.new_saddr);
    } else {
        setXFRMAddrFromBexa(from.local_addr, &entry.old_daddr);
        setXFRMAddrFromBexa(to.local_addr, &entry.new_daddr);
        setXFRMAddrFromBexa(from.remote_addr, &entry.old_saddr);
        setXFRMAddrFromBexa(from.remote_addr, &entry.new_saddr);
    }
    entry.old_family = familyOf(from.local_addr);
    entry.new_family = familyOf(to.local_addr);
    if (setXFRMMode(to, &entry.mode) != 0)
        return FAIL("%s(): setting XFRM state mode failed\n");
    msg.addNLAttribute(XFRMA_MIGRATE, sizeof entry, &entry);
    setXFRMEncap(to, halfOf(to, directionOf(direction)), msg);

    auto id = zeroed<xfrm_userpolicy_id>();
    id.dir  = direction;
    if (setXFRMSel(&id.sel, outbound ? localText : remoteText, outbound ? remoteText : localText, protocol) != 0)
        return FAIL("%s(): setting policy selector failed\n");
    msg.addMsgPayload(sizeof id, &id);
    const int result = transactWhole(msg);
    if (result != 0)
        LOG(failure, "%s(): sending XFRM migration failed\n");
    return result;
}

} // namespace

// The exported operations

int addXFRMStates(SaRecord& record, Technology technology, unsigned int mark, unsigned int mask) noexcept
{
    LOG(notice, "%s(): inserting outgoing XFRM state\n");
    int result = addXFRMState(record, Direction::Tx, technology, mark, mask, XFRM_MSG_NEWSA);
    if (result != 0) {
        LOG(failure, "%s(): setting TX XFRM state failed\n");
        return result;
    }

    LOG(notice, "%s(): inserting incoming XFRM state\n");
    result = addXFRMState(record, Direction::Rx, technology, mark, mask, XFRM_MSG_NEWSA);
    if (result != 0)
        LOG(failure, "%s(): setting RX XFRM state failed\n"); // TX stays
    return result;
}

int updateXFRMStates(SaRecord& record, Technology technology, unsigned int mark, unsigned int mask) noexcept
{
    const auto none         = zeroed<xfrm_usersa_info>();
    XFRMSeqMatchCtx context = {record, false, false, mark, mask, none, none, {}, {}};
    NetlinkMessage dump;
    dump.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_GETSA, kDump);
    dump.setDumpCb(queryXFRMStateCb, &context);
    if (dump.messageDump() != 0)
        LOG(failure, "%s(): failed to query XFRM");

    LOG(notice, "%s(): updating outgoing XFRM state\n");
    const int result = addXFRMState(record, Direction::Tx, technology, mark, mask, XFRM_MSG_UPDSA);
    if (result != 0) {
        LOG(failure, "%s(): updating TX XFRM state failed\n");
        return result;
    }

    // From here on only the last step decides.
    LOG(notice, "%s(): updating incoming XFRM state\n");
    if (addXFRMState(record, Direction::Rx, technology, mark, mask, XFRM_MSG_UPDSA) != 0)
        LOG(failure, "%s(): updating RX XFRM state failed\n");
    LOG(notice, "%s(): updating Sequence number TX\n");
    if (updateXFRMSeq(context, Direction::Tx) != 0)
        LOG(failure, "%s(): updating sequence TX failed\n");
    LOG(notice, "%s(): updating Sequence number RX\n");
    const int last = updateXFRMSeq(context, Direction::Rx);
    if (last != 0)
        LOG(failure, "%s(): updating sequence RX failed\n");
    return last;
}

int removeXFRMStates(SaRecord& record) noexcept
{
    NetlinkMessage msg;
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_GETSA, kDump);
    msg.setDumpCb(removeXFRMStateCb, &record);
    const int result = msg.messageDump();
    if (result != 0)
        LOG(failure, "%s(): removing XFRM states failed");
    return result;
}

int addXFRMPolicies(SaRecord& record, std::string& source, std::string& destination, unsigned char protocol,
                    bool outbound) noexcept
{
    if (outbound) {
        LOG(notice, "%s(): inserting output XFRM policy\n");
        const int result = addXFRMPolicy(record, source, destination, protocol, XFRM_POLICY_OUT);
        if (result != 0)
            LOG(failure, "%s(): setting outgoing XFRM policy failed\n");
        return result;
    }

    LOG(notice, "%s(): inserting input XFRM policy\n");
    int result = addXFRMPolicy(record, source, destination, protocol, XFRM_POLICY_IN);
    if (result != 0) {
        LOG(failure, "%s(): inserting incoming XFRM policy failed");
        return result;
    }
    LOG(notice, "%s(): inserting forward XFRM policy\n");
    result = addXFRMPolicy(record, source, destination, protocol, XFRM_POLICY_FWD);
    if (result != 0)
        LOG(failure, "%s(): inserting forwarding XFRM policy failed\n");
    return result;
}

int removeXFRMPolicies(std::string& source, std::string& destination, unsigned char protocol, bool outbound) noexcept
{
    if (outbound) {
        LOG(notice, "%s(): removing output XFRM policy\n");
        const int result = removeXFRMPolicy(source, destination, protocol, XFRM_POLICY_OUT);
        if (result != 0)
            LOG(failure, "%s(): removing outgoing XFRM policy failed\n");
        return result;
    }

    LOG(notice, "%s(): removing input XFRM policy\n");
    int result = removeXFRMPolicy(source, destination, protocol, XFRM_POLICY_IN);
    if (result != 0) {
        LOG(failure, "%s(): removing incoming XFRM policy failed");
        return result;
    }
    LOG(notice, "%s(): removing forward XFRM policy\n");
    result = removeXFRMPolicy(source, destination, protocol, XFRM_POLICY_FWD);
    if (result != 0)
        LOG(failure, "%s(): removing forwarding XFRM policy failed\n");
    return result;
}

int addXFRMPolicyEx(unsigned char direction) noexcept
{
    auto policy = allowingPolicy(direction, kBypassPriority);
    if (setXFRMSel(&policy.sel, "", kBypassSelector, IPPROTO_ICMPV6) != 0)
        return FAIL("%s(): setting policy selector failed\n");

    NetlinkMessage msg; // no template: what matches bypasses IPsec
    msg.setNLMsgHeader(NETLINK_XFRM, XFRM_MSG_NEWPOLICY, kAcknowledged);
    msg.addMsgPayload(sizeof policy, &policy);
    const int result = transactWhole(msg);
    if (result != 0)
        LOG(failure, "%s(): sending XFRM policy failed\n");
    return result;
}

int removeXFRMPolicyEx(unsigned char direction) noexcept
{
    return removeXFRMPolicy("", kBypassSelector, IPPROTO_ICMPV6, direction);
}

int migrateXFRMInfo(SaRecord& oldRecord, SaRecord& newRecord, std::string& localSelector, std::string& remoteSelector,
                    unsigned char protocol) noexcept
{
    if (oldRecord.encap_mode != newRecord.encap_mode)
        return FAIL_WITH(EINVAL, "%s(): XFRM mode has changed\n");
    if (oldRecord.ipsec_protocol != newRecord.ipsec_protocol)
        return FAIL_WITH(EINVAL, "%s(): XFRM protocol has changed\n");
    if (!sameAddress(oldRecord.remote_addr, newRecord.remote_addr))
        return FAIL_WITH(EINVAL, "%s(): remote address has changed\n");

    const auto migrate = [&](const SaRecord& from, const SaRecord& to, unsigned char direction) {
        return migrateOneXFRM(from, to, localSelector, remoteSelector, protocol, direction);
    };

    LOG(notice, "%s(): migrating outgoing XFRM info\n");
    const int result = migrate(oldRecord, newRecord, XFRM_POLICY_OUT);
    if (result != 0) {
        LOG(failure, "%s(): migrating TX XFRM info failed\n");
        return result;
    }

    int reason = 0; // of the step that failed first; those that move back are only logged
    LOG(notice, "%s(): migrating incoming XFRM info\n");
    if (migrate(oldRecord, newRecord, XFRM_POLICY_IN) != 0) {
        reason = errno;
        LOG(failure, "%s(): migrating RX XFRM info failed\n");
    } else {
        LOG(notice, "%s(): migrating forwarding XFRM info\n");
        if (migrate(oldRecord, newRecord, XFRM_POLICY_FWD) == 0)
            return 0;
        reason = errno;
        LOG(failure, "%s(): migrating FWD XFRM info failed\n");
        if (migrate(newRecord, oldRecord, XFRM_POLICY_IN) != 0)
            LOG(failure, "%s(): rolling back RX XFRM migration failed\n");
    }
    if (migrate(newRecord, oldRecord, XFRM_POLICY_OUT) != 0)
        LOG(failure, "%s(): rolling back TX XFRM migration failed\n");
    errno = reason;
    return -1;
}

} // namespace Vesk
