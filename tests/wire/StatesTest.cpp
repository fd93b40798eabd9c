// IPsec states: installing, finding, removing and updating them.
#include "IpsecTest.h"

#include <Wipe.h>

#include <algorithm>
#include <memory>

#include <pthread.h>

using namespace wire;
using namespace wire::ipsec;

// The plain record's TX, unless said otherwise.
struct Sa {
    const char* saddr = kHere;
    const char* daddr = kPeer;
    unsigned spi      = kTxSpi;
    int proto         = IPPROTO_ESP;
    int family        = AF_INET;
    int mode          = XFRM_MODE_TUNNEL;

    std::string with(int flags) const
    {
        return XfrmUsersaInfo{.daddr  = daddr,
                              .spi    = spi,
                              .proto  = proto,
                              .saddr  = saddr,
                              .lft    = XFRM_INF,
                              .family = family,
                              .mode   = mode,
                              .flags  = flags};
    }
};
static const Sa kTx, kRx{.saddr = kPeer, .daddr = kHere, .spi = kRxSpi};

static std::string cipher(const char* name, const std::string& key)
{
    return attr(XFRMA_ALG_CRYPT, XfrmAlgo{.alg_name = name, .alg_key = key});
}

static std::string hash(const char* name, int truncation, const std::string& key)
{
    return attr(XFRMA_ALG_AUTH_TRUNC, XfrmAlgoAuth{.alg_name = name, .alg_trunc_len = truncation, .alg_key = key});
}

static std::string encap(int from, int to)
{
    return '|' + attr(XFRMA_ENCAP, XfrmEncapTmpl{.encap_type = 2, .encap_sport = from, .encap_dport = to});
}

// The requests that install SAs with the plain record's keys, with what comes before TX's marks or after RX's keys.
static std::string installsTx(const Sa& sa, const std::string& more = "")
{
    return message(XFRM_MSG_NEWSA, kAck,
                   {sa.with(XFRM_STATE_AF_UNSPEC | XFRM_STATE_NOPMTUDISC), cipher("cbc(aes)", "16*c1"),
                    hash("hmac(sha256)", 128, "32*a1") + more, attr(XFRMA_SET_MARK, 0x20003),
                    attr(XFRMA_SET_MARK_MASK, 0x200ff)});
}

static std::string installsRx(const Sa& sa, const std::string& more = "")
{
    return message(
        XFRM_MSG_NEWSA, kAck,
        {sa.with(XFRM_STATE_AF_UNSPEC), cipher("cbc(aes)", "16*c2"), hash("hmac(sha256)", 128, "32*a2") + more});
}

static const LoggedBy kAdd = xfrm("addXFRMStates"), kState = xfrm("addXFRMState");
static const LoggedBy kCrypt = xfrm("setXFRMCryptoAlg"), kAuth = xfrm("setXFRMAuthAlg");
static const LogLine kInsertTx = kAdd.notice("inserting outgoing XFRM state\n");
static const LogLine kInsertRx = kAdd.notice("inserting incoming XFRM state\n");
static const LogLine kTxFailed = kAdd.failure("setting TX XFRM state failed\n");
static const LogLine kRxFailed = kAdd.failure("setting RX XFRM state failed\n");
static const LogLine kNotSent  = kState.failure("sending XFRM state failed\n");

static Operation install(Change change)
{
    return Operation(addXFRMStates, v4(change), 1, 3, 0xff);
}

// What is logged of one SA, from its keys on.
static Log described(const LogLine& encapsulation, unsigned flags, const char* suffix)
{
    return {kCrypt.detail("\t..crypt.alg_name = %s\n", "cbc(aes)"),
            kCrypt.detail("\t..crypt.alg_key_len = %u\n", 128),
            kCrypt.detail("\t..crypt.alg_key = %s\n", ""),
            kAuth.detail("\t..auth.algo = %s\n", "hmac(sha256)"),
            kAuth.detail("\t..auth.trunc_len = %u\n", 128),
            kAuth.detail("\t..auth.key_len = %u\n", 256),
            kAuth.detail("\t..auth.key = %s\n", ""),
            encapsulation,
            kState.detail("\t..sinfo.flags = 0x%x\n", flags),
            kState.detail("\t..sinfo.family = AF_INET%s\n", suffix)};
}

TEST(States, AreInstalledTxThenRx)
{
    const Log marks{kState.detail("\t..output_mark = 0x%x\n", 0x20003),
                    kState.detail("\t..output_mask = 0x%x\n", 0x200ff), kAcked, kInsertRx};
    const auto ports = [](int from, int to) { return kEncap.detail("\t..encap = %u -> %u\n", from, to); };

    check({.what  = "ESP over IPv4, in UDP",
           .call  = install(inUdp),
           .sends = {installsTx(kTx, encap(0x1234, 4500)), installsRx(kRx, encap(4500, 0x1234))},
           .log   = {kInsertTx, identity(kTxSpi), described(ports(0x1234, 4500), 0x24, ""), marks, identity(kRxSpi),
                     described(ports(4500, 0x1234), 0x20, ""), kAcked}});
    const Change ah = [](Record& r) {
        r.ipsec_protocol = r.encap_mode = 2;
        r.remote_addr.addr_len          = 20;
        r.local_addr.addr_len           = 8; // above 16 counts as 16; 8 leaves the rest zero
    };
    const Sa ahTx{
        .saddr = "fe80::", .daddr = kPeer6, .proto = IPPROTO_AH, .family = AF_INET6, .mode = XFRM_MODE_TRANSPORT};
    Sa ahRx = ahTx;
    std::swap(ahRx.saddr, ahRx.daddr);
    ahRx.spi = kRxSpi;
    check({.what  = "AH over IPv6, transport mode, the technology with a mark for RX",
           .call  = {addXFRMStates, v6(ah), TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 0x20003, 0x200ff},
           .sends = {installsTx(ahTx), installsRx(ahRx, '|' + attr(XFRMA_SET_MARK, 0x20002))},
           .log   = {kInsertTx, identity(kTxSpi, {}, "ah", "transport"), described(kNoEncap, 0x24, "6"), marks,
                     identity(kRxSpi, {}, "ah", "transport"), described(kNoEncap, 0x20, "6"),
                     kState.detail("\t..output_mark = 0x%x\n", 0x20002), kAcked}});
    check({.what = "the source's family counts, an address of none is zero, a protocol's low byte; RX fails, TX stays",
           .answers = {{}, {refusal(-EEXIST)}},
           .call    = install([](Record& r) {
               r.local_addr.ip_type = 5;
               r.remote_addr        = modemAddress(kPeer6);
               r.ipsec_protocol     = 0x103;
           }),
           .result  = -1,
           .error   = EEXIST,
           .sends   = {installsTx(Sa{.saddr = "", .daddr = kPeer6, .family = 0}),
                       installsRx(Sa{.saddr = kPeer6, .daddr = "", .spi = kRxSpi, .family = AF_INET6})},
           .log     = {kInsertTx, identity(kTxSpi, noAddress(5)), described(kNoEncap, 0x24, "6"), marks,
                       identity(kRxSpi, noAddress(5)), described(kNoEncap, 0x20, "6"), refusedBy(-EEXIST, kNotSent),
                       kRxFailed}});
    refused({.call = install(same), .steps = {kInsertTx, kNoEncap, denied(kNotSent), kTxFailed}});
    for (const Change change :
         {Change([](Record& r) { r.udp_encap = 0; }), Change([](Record& r) { r.udp_encap_valid = 0; }),
          Change([](Record& r) { r.udp_encap_port_valid = 0; })}) {
        Record record = v4(inUdp);
        change(record);
        check({.what  = "UDP needs all three",
               .call  = {addXFRMStates, record, 0, 0, 0},
               .sends = kAnything,
               .steps = {kInsertTx, kNoEncap, kAcked, kInsertRx, kNoEncap, kAcked}});
    }
}

TEST(States, NameTheirAlgorithms)
{
    const auto sends = [](const Record& record, const std::string& tx, const std::string& rx) {
        Kernel kernel;
        Operation{addXFRMStates, record, TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 0, 0}();
        for (const auto& [at, block] : {std::pair(0u, tx), {1u, rx}})
            EXPECT_TRUE((digits(kernel.requests().at(at)) + '|').find('|' + block + '|') != std::string::npos)
                << "request " << at + 1 << " lacks " << block;
    };
    for (const auto& [code, mode, name] : {std::tuple(9u, 2u, "cbc(des)"),
                                           {10u, 2u, "cbc(des3_ede)"},
                                           {10u, 3u, "cbc(des3_ede)"},
                                           {12u, 1u, "cbc(aes)"},
                                           {12u, 2u, "rfc3686(ctr(aes))"},
                                           {19u, 0u, "cbc(aes)"},
                                           {19u, 2u, "rfc3686(ctr(aes))"}}) {
        Record record            = v4();
        record.crypto_algo       = code;
        record.crypto_key_tx_len = 15;
        record.crypto_key_rx_len = 0;
        record.aes_mode_valid    = mode != 0;
        record.aes_mode          = mode != 0 ? mode : 2;
        sends(record, cipher(name, "15*c1"), cipher(name, ""));
    }
    for (const auto& [code, name, truncation] : {std::tuple(5u, "hmac(sha1)", 96),
                                                 {7u, "hmac(md5)", 96},
                                                 {12u, "xcbc(aes)", 96},
                                                 {20u, "hmac(sha384)", 192},
                                                 {21u, "hmac(sha512)", 256}}) {
        Record record          = v4();
        record.hash_algo       = code;
        record.hash_key_tx_len = 20;
        record.hash_key_rx_len = 440;
        sends(record, hash(name, truncation, "20*a1"), hash(name, truncation, "32*a2 408*00"));
    }
    sends(v4(), attr(XFRMA_SET_MARK, 0x20000) + '|' + attr(XFRMA_SET_MARK_MASK, 0x20000),
          attr(XFRMA_SET_MARK, 0x20002)); // of mark and mask 0
}

TEST(States, RefuseARecord)
{
    const LogLine invalid = kId.failure("IPSEC addresses or protocol is marked as invalid\n");
    const LogLine id      = kState.failure("setting XFRM state ID failed\n"),
                  mode    = kState.failure("setting XFRM state mode failed\n");
    const LogLine crypto  = kState.failure("setting XFRM state crypto failed\n"),
                  hashing = kState.failure("setting XFRM state auth failed\n");
    const auto refuses    = [](Change change, const LogLine& why, const LogLine& step, int line = __builtin_LINE()) {
        rejects({.what = why.text.c_str(), .call = install(change), .steps = {kInsertTx, why, step, kTxFailed}},
                   __FILE__, line);
    };
    const auto rxRefuses = [](Change change, const LogLine& why, const LogLine& step, int line = __builtin_LINE()) {
        refused({.answers = {{}},
                 .call    = install(change),
                 .error   = EINVAL,
                 .steps   = {kInsertTx, kNoEncap, kAcked, kInsertRx, why, step, kRxFailed}},
                __FILE__, line);
    };
    refuses([](Record& r) { r.remote_addr_valid = 0; }, invalid, id);
    refuses([](Record& r) { r.local_addr_valid = r.spi_tx_valid = 0; }, invalid, id);
    refuses([](Record& r) { r.ipsec_protocol_valid = 0; }, invalid, id);
    refuses([](Record& r) { r.ipsec_protocol = r.spi_tx_valid = 0; },
            kId.failure("%s SPI value is marked as invalid\n", "TX"), id);
    refuses([](Record& r) { r.ipsec_protocol = 0x204; }, kId.failure("invalid IPSEC protocol %d\n", 0x204), id);
    refuses([](Record& r) { r.encap_mode = r.encap_mode_valid = 0; },
            kMode.failure("encapsulation mode marked as invalid\n"), mode);
    refuses([](Record& r) { r.encap_mode = 0x101; }, kMode.failure("invalid XFRM mode 0x%x\n", 0x101), mode);
    refuses([](Record& r) { r.crypto_algo_valid = r.crypto_key_tx_valid = 0; },
            kCrypt.failure("crypto algorithm marked as invalid\n"), crypto);
    refuses([](Record& r) { r.crypto_algo = r.crypto_key_tx_valid = 0; },
            kCrypt.failure("%s crypto key marked as invalid\n", "TX"), crypto);
    refuses([](Record& r) { r.crypto_algo = 11; }, kCrypt.failure("invalid crypto algo %d\n", 11), crypto);
    refuses(
        [](Record& r) {
            r.aes_mode_valid = 0x80;
            r.aes_mode       = 3;
        },
        kCrypt.failure("invalid AES mode %d\n", 3), crypto);
    refuses([](Record& r) { r.hash_algo_valid = r.hash_key_tx_valid = 0; },
            kAuth.failure("hash algo marked as invalid\n"), hashing);
    refuses([](Record& r) { r.hash_algo = r.hash_key_tx_valid = 0; }, kAuth.failure("TX hash key marked as invalid\n"),
            hashing);
    refuses([](Record& r) { r.hash_algo = 8; }, kAuth.failure("invalid autho algo %d\n", 8), hashing);
    rxRefuses([](Record& r) { r.spi_rx_valid = 0; }, kId.failure("%s SPI value is marked as invalid\n", "RX"), id);
    rxRefuses([](Record& r) { r.crypto_key_rx_valid = 0; }, kCrypt.failure("%s crypto key marked as invalid\n", "RX"),
              crypto);
    rxRefuses([](Record& r) { r.hash_key_rx_valid = 0; }, kAuth.failure("RX hash key marked as invalid\n"), hashing);
}

// A refusal that ends as its request does, in keys, which may read as a text.
static const std::string kEcho =
    message(NLMSG_ERROR, NLM_F_ACK_TLVS, {"eaffffff 6c000000 1000 0500 8*00 46*c1 26*a1 0c000100 8*a1"});

static void expectNoKey(const Bytes& memory)
{
    for (const int byte : {0xc1, 0xa1})
        EXPECT_EQ(std::search_n(memory.begin(), memory.end(), 8, static_cast<std::uint8_t>(byte)), memory.end());
}

// Refused by the kernel, and before that, when a cipher's key has been added.
static void unknownHash(Record& r)
{
    r.hash_algo = 8;
}

TEST(States, KeepTheirKeysToThemselves)
{
    for (const auto& [change, blocks] : {std::pair(Change(same), 6u), {unknownHash, 2u}}) {
        Kernel kernel;
        kernel.answer({kEcho});
        EXPECT_STREQ(kernel.run(install(change)).text, "-1");
        EXPECT_GE(kernel.freedBlocks().size(), blocks);
        for (const Bytes& block : kernel.freedBlocks())
            expectNoKey(block);
        for (const LogLine& line : kernel.log())
            expectNoKey({line.text.begin(), line.text.end()});
    }
}

static void expectNoKeyOnTheStack(unsigned cipherKey, unsigned hashKey)
{
    const auto keyed = [&](Change change = same) {
        Record record            = v4(change);
        record.crypto_key_tx_len = cipherKey;
        record.hash_key_tx_len   = hashKey;
        std::fill_n(record.crypto_key_tx, 128, 0xc1);
        std::fill_n(record.hash_key_tx, 440, 0xa1);
        return record;
    };
    const char* ten                      = "10.0.0.0/8";
    std::pair<Operation, Answers> uses[] = {
        {{addXFRMStates, keyed(), 0, 0, 0}, {{kEcho}}},
        {{addXFRMStates, keyed(unknownHash), 0, 0, 0}, {}},
        {{updateXFRMStates, keyed(), 0, 0, 0}, {}},
        {{addXFRMPolicies, keyed(), ten, ten, 0, true}, {}},
        {{migrateXFRMInfo, keyed(), keyed(), ten, ten, 0}, {}},
        {{removeXFRMStates, v4()}, {{message(XFRM_MSG_NEWSA, kMulti, {"999*00 46*c1 46*a1"}), kEnd}}}};
    const auto run = [](void* given) -> void* {
        const auto& [call, answers] = *static_cast<decltype(+uses)>(given);
        ScriptedKernel kernel;
        kernel.answerEach(answers);
        kernel.dropLog(); // what a logger does overwrites what it saved at its entry: registers, on arm64
        wipeRegisters();  // a thread begins with those of who started it
        call();
        return nullptr;
    };
    struct alignas(1 << 16) Stack : std::array<std::uint8_t, 1 << 20> {}; // of whole pages, as bionic asks
    for (auto& use : uses)
        for (const bool bound : {false, true}) { // a symbol that is bound at its first use saves registers on the stack
            const auto stack = std::make_unique<Stack>();
            pthread_attr_t attributes;
            pthread_t thread;
            ASSERT_EQ(pthread_attr_init(&attributes) | pthread_attr_setstack(&attributes, stack->data(), stack->size()),
                      0);
            ASSERT_EQ(pthread_create(&thread, &attributes, run, &use) | pthread_join(thread, nullptr), 0);
            if (bound)
                expectNoKey({stack->begin(), stack->end()});
        }
}

// With keys as long as may be, which the frames of later calls do not cover, and with some that fit registers.
TEST(States, LeaveNoKeyOnTheStack)
{
    expectNoKeyOnTheStack(128, 440);
    expectNoKeyOnTheStack(16, 32);
}

TEST(StatesDeathTest, EndTheProcessForAKeyBeyondItsField)
{
    const auto killed = testing::KilledBySignal(SIGABRT);
    Kernel kernel; // takes TX
    EXPECT_EXIT(install([](Record& r) { r.crypto_key_tx_len = 129; })(), killed, "setXFRMCryptoAlg.*overflow");
    EXPECT_EXIT(install([](Record& r) { r.crypto_key_rx_len = 129; })(), killed, "setXFRMCryptoAlg.*overflow");
    EXPECT_EXIT(install([](Record& r) { r.hash_key_tx_len = 441; })(), killed, "setXFRMAuthAlg.*overflow");
}

static const std::string kGetSas = message(XFRM_MSG_GETSA, kDump);
static std::string dumped(const Sa& sa, const std::string& attributes = "")
{
    return message(XFRM_MSG_NEWSA, kMulti, {sa.with(0), attributes});
}

TEST(States, AreFoundByProtocolSPIAndBothAddresses)
{
    const LoggedBy by      = xfrm("removeXFRMStateCb");
    const LogLine protocol = by.verbose("ignoring non-matching protocol"),
                  none     = by.verbose("ignoring non-XFRM state message\n");
    const LogLine tx       = by.verbose("ignoring non-matching TX address\n"),
                  rx       = by.verbose("ignoring non-matching RX address\n");
    const auto passes      = [](const char* what, const Record& record, const std::string& sas, const Log& log,
                           int line = __builtin_LINE()) {
        check({.what    = what,
                    .answers = {{sas, kEnd}},
                    .call    = {removeXFRMStates, record},
                    .sends   = {kGetSas},
                    .log     = log},
                   __FILE__, line);
    };
    passes("others", v4(),
           message(XFRM_MSG_NEWPOLICY, kMulti) + message(XFRM_MSG_UPDSA, kMulti, {kTx.with(0)}) +
               message(XFRM_MSG_NEWSA, kMulti, {"220*00"}) + dumped({.proto = IPPROTO_AH}) +
               dumped({.proto = IPPROTO_COMP}) + dumped({.spi = 1}) + dumped({.saddr = kPeer}) +
               dumped({.daddr = kHere}) + dumped({.spi = kRxSpi}) + dumped({.saddr = kPeer, .spi = kRxSpi}),
           {none, none, by.failure("invalid XFRM state message received\n"), protocol,
            by.verbose("ignoring non-ESP/AH protocol"), by.verbose("ignoring non-matching SPI\n"), tx, tx, rx, rx});
    passes("ESP for AH, whatever the SPI", v4([](Record& r) { r.ipsec_protocol = 2; }), dumped({.spi = 1}), protocol);
    passes("the whole protocol counts", v4([](Record& r) { r.ipsec_protocol = 0x103; }), dumped(kTx), protocol);
    passes("equal SPIs: TX wins", v4([](Record& r) { r.spi_rx = r.spi_tx; }), dumped({.saddr = kPeer, .daddr = kHere}),
           tx);
    passes("no family", v4([](Record& r) { r.local_addr.ip_type = r.remote_addr.ip_type = 0; }), dumped({.family = 0}),
           tx);
    passes("the last byte differs", v6([](Record& r) { r.remote_addr.addr_len = 8; }),
           dumped({.saddr = kHere6, .daddr = "fe80::3", .family = AF_INET6}), tx);
    // 1.2.2.1 reads the same from its end, and begins 102:201::
    passes("IPv6 SA, IPv4 record", v4(same, "1.2.2.1", "1.2.2.1"),
           dumped({.saddr = "1.2.2.1", .daddr = "1.2.2.1", .family = AF_INET6}), tx);
    passes("IPv4 SA, IPv6 record", v4(same, "102:201::", "102:201::"), dumped({.saddr = "1.2.2.1", .daddr = "1.2.2.1"}),
           tx);
}

TEST(States, AreRemovedWhileTheDumpIsRead)
{
    const LoggedBy by = xfrm("removeXFRMStateCb");
    const Sa tx{.saddr = kHere6, .daddr = kPeer6, .proto = IPPROTO_AH, .family = AF_INET6};
    const Sa rx{.saddr = kPeer6, .daddr = kHere6, .spi = kRxSpi, .proto = IPPROTO_AH, .family = AF_INET6};
    const auto removing = [&](const char* line, unsigned spi) {
        return Log{by.notice(line), by.detail("\t..src %s\n", ""), by.detail("\t..dst %s\n", ""),
                   by.detail("\t..proto %u\n", 51), by.detail("\t..spi 0x%x\n", spi)};
    };
    const auto deletes = [](unsigned spi, const char* destination, const std::string& source) {
        return message(XFRM_MSG_DELSA, kAck,
                       {XfrmUsersaId{.daddr = destination, .spi = spi, .family = AF_INET6, .proto = IPPROTO_AH},
                        attr(XFRMA_SRCADDR, source)});
    };
    check({.what    = "both, whatever the flags say, with and without attributes; the second deletion fails",
           .answers = {{dumped(tx) + dumped(rx, attr(1, "00")), kEnd}, {}, {refusal(-ESRCH)}},
           .call    = {removeXFRMStates, v6([](Record& r) {
                        r.ipsec_protocol      = 2;
                        r.local_addr.addr_len = 8; // all 16 bytes are compared
                        r.spi_tx_valid = r.spi_rx_valid = r.local_addr_valid = r.remote_addr_valid =
                            r.ipsec_protocol_valid                           = 0;
                    })},
           .sends   = {kGetSas, deletes(kTxSpi, kPeer6, "fe80 13*00 01"), deletes(kRxSpi, kHere6, "fe80 13*00 02")},
           .log = {removing("removing TX XFRM state\n", kTxSpi), kAcked, removing("removing RX XFRM state\n", kRxSpi),
                   refusedBy(-ESRCH, by.failure("deleting XFRM state failed\n"))}});
    refused({.call  = {removeXFRMStates, v4()},
             .steps = {kDumpRefused, xfrm("removeXFRMStates").failure("removing XFRM states failed")}});
}

TEST(States, AreUpdatedInPlace)
{
    const LoggedBy by = xfrm("updateXFRMStates"), cb = xfrm("queryXFRMStateCb");
    const Log txUpdate{by.notice("updating outgoing XFRM state\n"), kNoEncap},
        rxUpdate{kAcked, by.notice("updating incoming XFRM state\n"), kNoEncap};
    const Log txCounters = by.notice("updating Sequence number TX\n"),
              rxCounters = by.notice("updating Sequence number RX\n");
    const Log all{txUpdate, rxUpdate, kAcked, txCounters, kAcked, rxCounters, kAcked};
    const LogLine tx = cb.notice("Setting TX seq"), rx = cb.notice("Setting RX seq");
    const auto counted = [&](unsigned seq, unsigned oseq) {
        return cb.notice("Replay Seq: seq: %u oseq: %u", seq, oseq);
    };
    const auto extended = [&](unsigned seq, unsigned oseq) {
        return cb.notice("Replay Seq ESN: seq: %u oseq: %u", seq, oseq);
    };

    // The requests for SAs differ from those that install in their type; then come the counters.
    const auto sas = [] {
        Kernel kernel;
        Operation{addXFRMStates, v4(), TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 3, 0xff}();
        return kernel.requests();
    }();
    const auto sends = [&](const std::string& ofTx, const std::string& ofRx) {
        return Sends{kGetSas, digits(sas[0]).replace(8, 4, "1a00"), digits(sas[1]).replace(8, 4, "1a00"), ofTx, ofRx};
    };
    const auto counters = [](const std::string& id, const std::string& replay) {
        return message(XFRM_MSG_NEWAE, NLM_F_ACK | NLM_F_REPLACE,
                       {id + "24*00", attr(XFRMA_SET_MARK, 3), attr(XFRMA_SET_MARK_MASK, 0xff), replay});
    };
    const auto value       = [](const XfrmReplayState& replay) { return attr(XFRMA_REPLAY_VAL, replay); };
    const auto esn         = [](const std::string& replay) { return attr(XFRMA_REPLAY_ESN_VAL, replay); };
    const std::string txId = XfrmUsersaId{.daddr = kPeer, .spi = kTxSpi, .family = AF_INET, .proto = IPPROTO_ESP},
                      noId = XfrmUsersaId{};
    const std::string rxZeros =
        counters(XfrmUsersaId{.daddr = kHere, .spi = kRxSpi, .family = AF_INET, .proto = IPPROTO_ESP}, value({}));
    const XfrmReplayStateEsn five{.oseq = 5, .seq = 6, .oseq_hi = 7, .seq_hi = 8, .replay_window = 9},
        longer{.bmp_len = 1, .oseq = 2, .seq = 3};
    const Check updates(
        {.call = {updateXFRMStates, v4(), TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 3, 0xff}, .sends = kAnything},
        NETLINK_XFRM);

    updates({.what    = "TX sends what was dumped last, which was RX's; RX sends zeros; others' SAs do not count",
             .answers = {{dumped(kTx, value({.oseq = 1, .seq = 2, .bitmap = 3})) +
                              dumped(kRx, attr(XFRMA_REPLAY_VAL, "04000000 05000000 06000000 ffffffff")) +
                              dumped({.saddr = kPeer}, value({.oseq = 7})),
                          kEnd}},
             .sends   = sends(counters(txId, value({.oseq = 4, .seq = 5, .bitmap = 6})), rxZeros),
             .steps   = {tx, counted(2, 1), rx, counted(5, 4), all}});
    updates(
        {.what = "after an extended record of TX, what is dumped last is sent as such, of RX and longer though it be",
         .answers = {{dumped(kTx, esn(five)) + dumped(kRx, esn(std::string(longer) + "ffffffff")), kEnd}},
         .sends   = sends(counters(txId, esn(longer)), rxZeros),
         .steps   = {tx, extended(6, 5), rx, extended(3, 2), all}});
    updates({.what    = "a plain one takes the place of its first 12 bytes",
             .answers = {{dumped(kTx, esn(five)) + dumped(kRx, value({.oseq = 2, .seq = 3, .bitmap = 4})), kEnd}},
             .sends   = sends(counters(txId, esn(XfrmReplayStateEsn{2, 3, 4, 7, 8, 9})), rxZeros),
             .steps   = {tx, extended(6, 5), rx, counted(3, 2), all}});
    updates({.what    = "one of RX is sent for TX, as 12 bytes",
             .answers = {{dumped(kRx, esn(five)), kEnd}},
             .sends   = sends(counters(noId, value({.seq = 5, .bitmap = 6})), rxZeros),
             .steps   = {rx, extended(6, 5), all}});
    updates({.what    = "records that are too short; a dump that fails stops nothing, and what it had read counts",
             .answers = {{dumped(kTx, attr(XFRMA_REPLAY_VAL, "8*01") + esn("20*01")), failedReceive(EIO)}},
             .sends   = sends(counters(txId, value({})), counters(noId, value({}))),
             .steps   = {tx, core("messageDump").failure("receiving NL dump failed. errno=[%d %s]", EIO, strerror(EIO)),
                         by.failure("failed to query XFRM"), all}});

    const Log noCounters = denied(xfrm("updateXFRMSeq").failure("sending XFRM state failed\n"));
    const std::vector<Reply> no{refusal(-EPERM)};
    updates({.what    = "TX fails: nothing else is tried",
             .answers = {{}, no},
             .result  = -1,
             .error   = EPERM,
             .steps   = {txUpdate, denied(kNotSent), by.failure("updating TX XFRM state failed\n")}});
    updates({.what    = "RX and TX's counters fail: RX's counters decide",
             .answers = {{}, {}, no, no},
             .steps = {txUpdate, rxUpdate, denied(kNotSent), by.failure("updating RX XFRM state failed\n"), txCounters,
                       noCounters, by.failure("updating sequence TX failed\n"), rxCounters, kAcked}});
    updates({.what    = "RX's counters fail",
             .answers = {{}, {}, {}, {}, no},
             .result  = -1,
             .error   = EPERM,
             .steps   = {txUpdate, rxUpdate, kAcked, txCounters, kAcked, rxCounters, noCounters,
                         by.failure("updating sequence RX failed\n")}});
}
