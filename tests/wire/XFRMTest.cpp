// IPsec: whole datagrams and whole logs for the main roads, the lines of level 3 and 4 for the others.
#include "WireTest.h"

#include <Records.h>

#include <algorithm>

#include <pthread.h>

using namespace wire;
using namespace Vesk;
using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;
using Change = void (*)(Record&);

static const auto kTechnology = static_cast<tro_technology_name_enum_v01>(0);

static Record v4(Change change = [](Record&) {})
{
    Record record = espTunnel("192.0.2.1", "198.51.100.7");
    change(record);
    return record;
}

static Record v6() { return espTunnel("fe80::1", "fe80::2"); }

// An operation on a record, with mark 0x20003 and mask 0x200ff where it takes them.
static const auto install = [](Record record, tro_technology_name_enum_v01 technology = kTechnology) {
    return Operation([=]() mutable { return addXFRMStates(record, technology, 0x20003, 0x200ff); });
};

static const auto update = [](Record record) { return Operation([=]() mutable { return updateXFRMStates(record, TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 0x20003, 0x200ff); }); };

static const auto removal = [](Record record) { return Operation([=]() mutable { return removeXFRMStates(record); }); };

// Pieces of datagrams
static const std::string kLimits = "32*ff 32*00 32*00 12*00 00000000 00000000"; // none; nothing used; seq, reqid
static const std::string kAes = "63626328 61657329 56*00";                      // "cbc(aes)"
static const std::string kSha256 = "686d6163 28736861 32353629 52*00";          // "hmac(sha256)"
static const std::string kLocal = "c0000201 12*00 ", kRemote = "c6336407 12*00 ";
static const std::string kLocal6 = "fe80 13*00 01 ", kRemote6 = "fe80 13*00 02 ";
static const std::string kKeysTx = "5800 0200" + kAes + "80000000 16*c1 | 6c00 1400" + kSha256 + "00010000 80000000 32*a1 |";
static const std::string kKeysRx = "5800 0200" + kAes + "80000000 16*c2 | 6c00 1400" + kSha256 + "00010000 80000000 32*a2 |";
static const std::string kMarksTx = "0800 1d00 03000200 | 0800 1e00 ff000200";

// The plain record's SAs, in a request of this type; RX with the mark of the special technology.
static std::string txOf(const std::string& type)
{
    return "c4010000 " + type + " 0500" + kSeqPid + "56*00" + kRemote + "11223344 32000000" + kLocal + kLimits + "0200 01 00 24 7*00 |" + kKeysTx + kMarksTx;
}

static std::string rxOf(const std::string& type)
{
    return "bc010000 " + type + " 0500" + kSeqPid + "56*00" + kLocal + "55667788 32000000" + kRemote + kLimits + "0200 01 00 20 7*00 |" + kKeysRx + "0800 1d00 02000200";
}

// Lines that many logs share
static const LogLine kInsertTx = xfrm(3, "%s(): inserting outgoing XFRM state\n", "addXFRMStates");
static const LogLine kInsertRx = xfrm(3, "%s(): inserting incoming XFRM state\n", "addXFRMStates");
static const LogLine kTxFailed = xfrm(4, "%s(): setting TX XFRM state failed\n", "addXFRMStates");
static const LogLine kRxFailed = xfrm(4, "%s(): setting RX XFRM state failed\n", "addXFRMStates");
static const LogLine kNoEncap = xfrm(3, "%s(): not setting encapsulation params\n", "setXFRMEncap");
static const LogLine kNotSent = xfrm(4, "%s(): sending XFRM state failed\n", "addXFRMState");

TEST(States, AreInstalledTxThenRx)
{
    const char *id = "setXFRMIdFromBexa", *cipher = "setXFRMCryptoAlg", *hash = "setXFRMAuthAlg", *state = "addXFRMState";
    const auto half = [=](const char* protocol, const char* mode, unsigned spi, const LogLine& encap, unsigned flags, const char* suffix) {
        return Log{xfrm(2, "%s():\t..id.proto = %s\n", id, protocol), xfrm(2, "%s():\t..saddr = %s\n", id, "")} +
               Log{xfrm(2, "%s():\t..id.daddr = %s\n", id, ""), xfrm(2, "%s():\t..id.spi = 0x%x\n", id, spi)} +
               Log{xfrm(2, "%s():\t..mode = %s\n", "setXFRMMode", mode), xfrm(2, "%s():\t..crypt.alg_name = %s\n", cipher, "cbc(aes)")} +
               Log{xfrm(2, "%s():\t..crypt.alg_key_len = %u\n", cipher, 128), xfrm(2, "%s():\t..crypt.alg_key = %s\n", cipher, "")} +
               Log{xfrm(2, "%s():\t..auth.algo = %s\n", hash, "hmac(sha256)"), xfrm(2, "%s():\t..auth.trunc_len = %u\n", hash, 128)} +
               Log{xfrm(2, "%s():\t..auth.key_len = %u\n", hash, 256), xfrm(2, "%s():\t..auth.key = %s\n", hash, ""), encap} +
               Log{xfrm(2, "%s():\t..sinfo.flags = 0x%x\n", state, flags), xfrm(2, "%s():\t..sinfo.family = AF_INET%s\n", state, suffix)};
    };
    const auto ports = [](unsigned source, unsigned destination) { return xfrm(2, "%s():\t..encap = %u -> %u\n", "setXFRMEncap", source, destination); };
    const Log marks{xfrm(2, "%s():\t..output_mark = 0x%x\n", state, 0x20003), xfrm(2, "%s():\t..output_mask = 0x%x\n", state, 0x200ff), kAcked, kInsertRx};
    const Record inUdp = v4([](Record& r) {
        r.udp_encap_port_valid = r.udp_encap_valid = r.udp_encap = r.spi_tx_valid = 0x80; // any value but 0
        r.udp_encap_port = 0x3412;                                                        // 0x1234 in network order
    });
    check("ESP over IPv4, in UDP", install(inUdp), 0,
          requests(NETLINK_XFRM, {"e0010000 1000 0500" + kSeqPid + "56*00" + kRemote + "11223344 32000000" + kLocal + kLimits + "0200 01 00 24 7*00 |" + kKeysTx +
                                      "1c00 0400 0200 1234 1194 0000 16*00 |" + kMarksTx,
                                  "d0010000 1000 0500" + kSeqPid + "56*00" + kLocal + "55667788 32000000" + kRemote + kLimits + "0200 01 00 20 7*00 |" + kKeysRx +
                                      "1c00 0400 0200 1194 1234 0000 16*00"}),
          Log{kInsertTx} + half("esp", "tunnel", 0x11223344, ports(0x1234, 4500), 0x24, "") + marks + half("esp", "tunnel", 0x55667788, ports(4500, 0x1234), 0x20, "") +
              Log{kAcked});

    Record ah = v6();
    ah.ipsec_protocol = ah.encap_mode = 2;
    ah.remote_addr.addr_len = 20, ah.local_addr.addr_len = 8; // above 16 counts as 16; 8 leaves the rest zero
    check("AH over IPv6, transport mode, the technology with a mark for RX", install(ah, TRO_TECHNOLOGY_NAME_MARKED_RX_V01), 0,
          requests(NETLINK_XFRM,
                   {"c4010000 1000 0500" + kSeqPid + "56*00" + kRemote6 + "11223344 33000000 fe80 14*00 " + kLimits + "0a00 00 00 24 7*00 |" + kKeysTx + kMarksTx,
                    "bc010000 1000 0500" + kSeqPid + "56*00 fe80 14*00 55667788 33000000" + kRemote6 + kLimits + "0a00 00 00 20 7*00 |" + kKeysRx + "0800 1d00 02000200"}),
          Log{kInsertTx} + half("ah", "transport", 0x11223344, kNoEncap, 0x24, "6") + marks + half("ah", "transport", 0x55667788, kNoEncap, 0x20, "6") +
              Log{xfrm(2, "%s():\t..output_mark = 0x%x\n", state, 0x20002), kAcked});
    notable("an address of no family stays zero; of the protocol the low byte counts; the kernel refuses",
            install(v4([](Record& r) { r.local_addr.ip_type = 5, r.remote_addr.ip_type = 7, r.ipsec_protocol = 0x103; })), -1,
            requests(NETLINK_XFRM, {"c4010000 1000 0500" + kSeqPid + "56*00 16*00 11223344 32000000 16*00 " + kLimits + "0000 01 00 24 7*00 |" + kKeysTx + kMarksTx}),
            Log{kInsertTx, xfrm(4, "%s(): invalid addr family %u\n", "setXFRMAddrFromBexa", 5), xfrm(4, "%s(): invalid addr family %u\n", "setXFRMAddrFromBexa", 7), kNoEncap} +
                refusedBy(-EINVAL, kNotSent) + Log{kTxFailed},
            {{refusal(-EINVAL)}});
    notable("RX is refused, TX stays", install(v4()), -1, kAnything, Log{kInsertTx, kNoEncap, kAcked, kInsertRx, kNoEncap} + refusedBy(-EEXIST, kNotSent) + Log{kRxFailed},
            {{}, {refusal(-EEXIST)}});
    for (const Change change :
         {Change([](Record& r) { r.udp_encap = 0; }), Change([](Record& r) { r.udp_encap_valid = 0; }), Change([](Record& r) { r.udp_encap_port_valid = 0; })}) {
        Record record = inUdp;
        change(record);
        notable("UDP needs all three", install(record), 0, kAnything, {kInsertTx, kNoEncap, kAcked, kInsertRx, kNoEncap, kAcked});
    }
}

TEST(States, NameTheirAlgorithms)
{
    const auto sends = [](std::size_t block, Record record, const std::string& attribute) {
        ScriptedKernel kernel;
        ASSERT_EQ(addXFRMStates(record, kTechnology, 0, 0), 0) << attribute;
        std::string datagram = digits(kernel.requests().at(0));
        for (; block > 0; --block) datagram.erase(0, datagram.find('|') + 1);
        EXPECT_EQ(datagram.substr(0, datagram.find('|')), spelledOut(attribute));
    };
    const auto cipher = [&](std::uint32_t code, std::uint32_t keyLength, int aesMode, const std::string& attribute) {
        Record record = v4();
        record.crypto_algo = code, record.crypto_key_tx_len = keyLength;
        record.aes_mode_valid = aesMode > 0, record.aes_mode = static_cast<std::uint32_t>(aesMode < 0 ? -aesMode : aesMode);
        sends(2, record, attribute);
    };
    const auto hash = [&](std::uint32_t code, std::uint32_t keyLength, const std::string& attribute) {
        Record record = v4();
        record.hash_algo = code, record.hash_key_tx_len = keyLength;
        sends(3, record, attribute);
    };
    sends(4, v4(), "0800 1d00 00000200"); // of a mark and a mask of 0 one bit is left
    sends(5, v4(), "0800 1e00 00000200");
    cipher(9, 8, 2, "5000 0200 63626328 64657329 56*00 40000000 8*c1");                            // cbc(des), which has no modes
    cipher(10, 0, 0, "4800 0200 63626328 64657333 5f656465 29 51*00 00000000");                    // cbc(des3_ede), no key bytes
    cipher(12, 16, 1, "5800 0200" + kAes + "80000000 16*c1");                                      //
    cipher(19, 16, -2, "5800 0200" + kAes + "80000000 16*c1");                                     // a mode that is not valid
    cipher(19, 15, 2, "5700 0200 72666333 36383628 63747228 61657329 29 47*00 78000000 15*c1 00"); // rfc3686(ctr(aes)), padded
    hash(5, 20, "6000 1400 686d6163 28736861 3129 54*00 a0000000 60000000 20*a1");                 // hmac(sha1)
    hash(7, 16, "5c00 1400 686d6163 286d6435 29 55*00 80000000 60000000 16*a1");                   // hmac(md5)
    hash(12, 16, "5c00 1400 78636263 28616573 29 55*00 80000000 60000000 16*a1");                  // xcbc(aes)
    hash(20, 32, "6c00 1400 686d6163 28736861 33383429 52*00 00010000 c0000000 32*a1");            // hmac(sha384)
    hash(21, 440, "0402 1400 686d6163 28736861 35313229 52*00 c00d0000 00010000 32*a1 408*00");    // hmac(sha512), the longest key
}

TEST(States, RefuseARecord)
{
    const char *id = "%s(): setting XFRM state ID failed\n", *mode = "%s(): setting XFRM state mode failed\n";
    const char *crypto = "%s(): setting XFRM state crypto failed\n", *auth = "%s(): setting XFRM state auth failed\n";
    const char *idStep = "setXFRMIdFromBexa", *modeStep = "setXFRMMode", *cryptoStep = "setXFRMCryptoAlg", *authStep = "setXFRMAuthAlg";
    const LogLine invalid = xfrm(4, "%s(): IPSEC addresses or protocol is marked as invalid\n", idStep);
    const auto refuses = [](Change change, const LogLine& step, const char* summary) {
        notable(step.text.c_str(), install(v4(change)), -1, kNothing, {kInsertTx, step, xfrm(4, summary, "addXFRMState"), kTxFailed});
    };
    const auto rxRefuses = [](Change change, const LogLine& step, const char* summary) {
        notable(step.text.c_str(), install(v4(change)), -1, kAnything, {kInsertTx, kNoEncap, kAcked, kInsertRx, step, xfrm(4, summary, "addXFRMState"), kRxFailed});
    };
    refuses([](Record& r) { r.remote_addr_valid = 0; }, invalid, id);
    refuses([](Record& r) { r.local_addr_valid = r.spi_tx_valid = 0; }, invalid, id);
    refuses([](Record& r) { r.ipsec_protocol_valid = 0; }, invalid, id);
    refuses([](Record& r) { r.spi_tx_valid = 0; }, xfrm(4, "%s(): %s SPI value is marked as invalid\n", idStep, "TX"), id);
    refuses([](Record& r) { r.ipsec_protocol = 0x204; }, xfrm(4, "%s(): invalid IPSEC protocol %d\n", idStep, 0x204), id);
    refuses([](Record& r) { r.encap_mode_valid = 0; }, xfrm(4, "%s(): encapsulation mode marked as invalid\n", modeStep), mode);
    refuses([](Record& r) { r.encap_mode = 0x101; }, xfrm(4, "%s(): invalid XFRM mode 0x%x\n", modeStep, 0x101), mode);
    refuses([](Record& r) { r.crypto_algo_valid = r.crypto_key_tx_valid = 0; }, xfrm(4, "%s(): crypto algorithm marked as invalid\n", cryptoStep), crypto);
    refuses([](Record& r) { r.crypto_key_tx_valid = 0; }, xfrm(4, "%s(): %s crypto key marked as invalid\n", cryptoStep, "TX"), crypto);
    refuses([](Record& r) { r.crypto_algo = 11; }, xfrm(4, "%s(): invalid crypto algo %d\n", cryptoStep, 11), crypto);
    refuses([](Record& r) { r.aes_mode_valid = 1, r.aes_mode = 3; }, xfrm(4, "%s(): invalid AES mode %d\n", cryptoStep, 3), crypto);
    refuses([](Record& r) { r.hash_algo_valid = r.hash_key_tx_valid = 0; }, xfrm(4, "%s(): hash algo marked as invalid\n", authStep), auth);
    refuses([](Record& r) { r.hash_key_tx_valid = 0; }, xfrm(4, "%s(): TX hash key marked as invalid\n", authStep), auth);
    refuses([](Record& r) { r.hash_algo = 8; }, xfrm(4, "%s(): invalid autho algo %d\n", authStep, 8), auth);
    rxRefuses([](Record& r) { r.spi_rx_valid = 0; }, xfrm(4, "%s(): %s SPI value is marked as invalid\n", idStep, "RX"), id);
    rxRefuses([](Record& r) { r.crypto_key_rx_valid = 0; }, xfrm(4, "%s(): %s crypto key marked as invalid\n", cryptoStep, "RX"), crypto);
    rxRefuses([](Record& r) { r.hash_key_rx_valid = 0; }, xfrm(4, "%s(): RX hash key marked as invalid\n", authStep), auth);
}

TEST(States, KeepTheirKeysToThemselves)
{
    // The kernel refuses, with the end of the request, and so of a key, in its answer: it reads as a text of 0xa1.
    ScriptedKernel kernel;
    kernel.answer(replies({"40000000 0200 0002 00000000 00000000 eaffffff 2c000000 1000 0500 8*00 16*a1 0c000100 8*a1"}));
    EXPECT_EQ(kernel.run(install(v4())), -1);

    ASSERT_GE(kernel.freedBlocks().size(), 6u); // two keys, two marks, the payload, the list of blocks
    for (const char byte : {'\xc1', '\xa1'}) {
        for (const Bytes& block : kernel.freedBlocks()) EXPECT_EQ(std::search_n(block.begin(), block.end(), 8, static_cast<std::uint8_t>(byte)), block.end());
        for (const LogLine& line : kernel.log()) EXPECT_EQ(line.text.find(byte), std::string::npos) << line.text;
    }
}

static void* useKeys(void* record)
{
    ScriptedKernel kernel; // refuses TX, with its keys in the answer
    kernel.answer(replies({"80000000 0200 0002 00000000 00000000 eaffffff 6c000000 1000 0500 8*00 46*c1 46*a1"}));
    return addXFRMStates(*static_cast<Record*>(record), kTechnology, 0, 0) == -1 ? record : nullptr;
}

TEST(States, LeaveNoKeyOnTheStack)
{
    Record record = v4();
    std::vector<std::uint8_t> stack(1 << 20);
    pthread_attr_t attributes;
    pthread_t thread;
    void* refused = nullptr;
    ASSERT_EQ(pthread_attr_init(&attributes) | pthread_attr_setstack(&attributes, stack.data(), stack.size()), 0);
    ASSERT_EQ(pthread_create(&thread, &attributes, useKeys, &record) | pthread_join(thread, &refused), 0);
    EXPECT_EQ(refused, &record);
    for (const int byte : {0xc1, 0xa1}) EXPECT_EQ(std::search_n(stack.begin(), stack.end(), 8, static_cast<std::uint8_t>(byte)), stack.end());
}

TEST(StatesDeathTest, EndTheProcessForAKeyBeyondItsField)
{
    const auto killed = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(install(v4([](Record& r) { r.crypto_key_tx_len = 129; }))(), killed, "setXFRMCryptoAlg\\(\\): .*overflow");
    EXPECT_EXIT(install(v4([](Record& r) { r.hash_key_tx_len = 441; }))(), killed, "setXFRMAuthAlg\\(\\): .*overflow");
    ScriptedKernel kernel; // takes TX
    EXPECT_EXIT(install(v4([](Record& r) { r.crypto_key_rx_len = 129; }))(), killed, "setXFRMCryptoAlg\\(\\): .*overflow");
}

// A dumped SA, with 16 bytes of attributes unless the length says otherwise.
static std::string dumped(const std::string& spiProtoFamily, const std::string& source, const std::string& destination, const std::string& attributes = "0400 0100 0400 0100 8*00",
                          const std::string& length = "00010000")
{
    return ' ' + length + " 1000 0200 00000000 00000000 56*00 " + destination + spiProtoFamily.substr(0, 8) + ' ' + spiProtoFamily.substr(9, 2) + "000000 " + source + " 116*00 " +
           spiProtoFamily.substr(12) + " 01 00 00 7*00 " + attributes;
}

static const std::string kTx = dumped("11223344 32 0200", kLocal, kRemote), kRx = dumped("55667788 32 0200", kRemote, kLocal);

TEST(States, AreFoundByProtocolSPIAndBothAddresses)
{
    const auto passes = [](const char* what, const Record& record, const std::string& state, int level, const char* format) {
        check(what, removal(record), 0, requests(NETLINK_XFRM, {"10000000 1200 0103 00000000 00000000"}), {xfrm(level, format, "removeXFRMStateCb")}, {replies({state, kEnd})});
    };
    const char *protocol = "%s(): ignoring non-matching protocol", *spi = "%s(): ignoring non-matching SPI\n";
    const char *txAddress = "%s(): ignoring non-matching TX address\n", *rxAddress = "%s(): ignoring non-matching RX address\n";

    passes("no SA", v4(), "10000000 1300 0200 00000000 00000000", 1, "%s(): ignoring non-XFRM state message\n");
    passes("too short", v4(), "ec000000 1000 0200 00000000 00000000 220*00", 4, "%s(): invalid XFRM state message received\n");
    passes("ESP for AH, whatever the SPI", v4([](Record& r) { r.ipsec_protocol = 2; }), dumped("33333333 32 0200", kLocal, kRemote), 1, protocol);
    passes("AH for ESP", v4(), dumped("11223344 33 0200", kLocal, kRemote), 1, protocol);
    passes("the whole protocol counts", v4([](Record& r) { r.ipsec_protocol = 0x103; }), kTx, 1, protocol);
    passes("IPComp", v4(), dumped("11223344 6c 0200", kLocal, kRemote), 1, "%s(): ignoring non-ESP/AH protocol");
    passes("another SPI", v4(), dumped("33333333 32 0200", kLocal, kRemote), 1, spi);
    passes("TX from elsewhere", v4(), dumped("11223344 32 0200", kRemote, kRemote), 1, txAddress);
    passes("TX to elsewhere", v4(), dumped("11223344 32 0200", kLocal, kLocal), 1, txAddress);
    passes("RX with the ends of TX", v4(), dumped("55667788 32 0200", kLocal, kRemote), 1, rxAddress);
    passes("equal SPIs: TX wins", v4([](Record& r) { r.spi_rx = r.spi_tx; }), dumped("11223344 32 0200", kRemote, kLocal), 1, txAddress);
    passes("IPv6 SA, IPv4 record", v4(), dumped("11223344 32 0a00", kLocal, kRemote), 1, txAddress);
    passes("IPv4 SA, IPv6 record", v6(), dumped("11223344 32 0200", kLocal6, kRemote6), 1, txAddress);
    passes("neither family", v4([](Record& r) { r.local_addr.ip_type = r.remote_addr.ip_type = 0; }), dumped("11223344 32 0000", kLocal, kRemote), 1, txAddress);
    passes("the last byte differs", v6(), dumped("11223344 32 0a00", kLocal6, "fe80 13*00 03 "), 1, txAddress);
}

TEST(States, AreRemovedWhileTheDumpIsRead)
{
    const char* cb = "removeXFRMStateCb";
    const auto lines = [&](const char* line, unsigned spi) {
        return Log{xfrm(3, line, cb), xfrm(2, "%s():\t..src %s\n", cb, ""), xfrm(2, "%s():\t..dst %s\n", cb, ""), xfrm(2, "%s():\t..proto %u\n", cb, 51),
                   xfrm(2, "%s():\t..spi 0x%x\n", cb, spi)};
    };
    Record ah = v6();
    ah.ipsec_protocol = 2, ah.local_addr.addr_len = 8; // all 16 bytes are compared
    ah.spi_tx_valid = ah.spi_rx_valid = ah.local_addr_valid = ah.remote_addr_valid = ah.ipsec_protocol_valid = 0;
    check("both, whatever the flags say, without attributes; the second deletion fails", removal(ah), 0,
          requests(NETLINK_XFRM, {"10000000 1200 0103 00000000 00000000", "3c000000 1100 0500" + kSeqPid + kRemote6 + "11223344 0a00 33 00 | 1400 0d00" + kLocal6,
                                  "3c000000 1100 0500" + kSeqPid + kLocal6 + "55667788 0a00 33 00 | 1400 0d00" + kRemote6}),
          lines("%s(): removing TX XFRM state\n", 0x11223344) + Log{kAcked} + lines("%s(): removing RX XFRM state\n", 0x55667788) +
              refusedBy(-ESRCH, xfrm(4, "%s(): deleting XFRM state failed\n", cb)),
          {replies({dumped("11223344 33 0a00", kLocal6, kRemote6, "", "f0000000") + dumped("55667788 33 0a00", kRemote6, kLocal6), kEnd}), {}, {refusal(-ESRCH)}});
    notable("the dump fails", removal(v4()), -1, kAnything, {dumpRefused(), xfrm(4, "%s(): removing XFRM states failed", "removeXFRMStates")}, {{refusal(-EPERM)}});
}

TEST(States, AreUpdatedInPlace)
{
    const char *cb = "queryXFRMStateCb", *name = "updateXFRMStates";
    const auto step = [&](const char* format) { return xfrm(3, format, name); };
    const Log updates = Log{step("%s(): updating outgoing XFRM state\n"), kNoEncap, kAcked} + Log{step("%s(): updating incoming XFRM state\n"), kNoEncap, kAcked} +
                        Log{step("%s(): updating Sequence number TX\n"), kAcked, step("%s(): updating Sequence number RX\n"), kAcked};
    const auto counters = [](const std::string& length, const std::string& id, const std::string& replay) {
        return length + "1e00 0401 00000000 00000000 | " + id + " 16*00 8*00 | 0800 1d00 03000200 | 0800 1e00 ff000200 | " + replay;
    };
    const std::string zeros = "1000 0a00 12*00", none = "16*00 00000000 0000 00 00";
    const std::string txId = kRemote + "11223344 0200 32 00", rxId = kLocal + "55667788 0200 32 00";
    const auto afterDump = [&](const char* what, const std::vector<Reply>& dump, const Log& found, const std::string& tx, const std::string& rx) {
        ScriptedKernel kernel;
        kernel.answer(dump);
        EXPECT_EQ(kernel.run(update(v4())), 0) << what;
        EXPECT_EQ(unmet(kernel, kAnything, found + updates, log_level_notice), "") << what;
        ASSERT_EQ(kernel.requests().size(), 5u) << what;
        EXPECT_EQ(digits(kernel.requests()[1]), spelledOut(txOf("1a00"))) << what;
        EXPECT_EQ(digits(kernel.requests()[2]), spelledOut(rxOf("1a00"))) << what;
        EXPECT_EQ(digits(kernel.requests()[3]), spelledOut(tx)) << what;
        EXPECT_EQ(digits(kernel.requests()[4]), spelledOut(rx)) << what;
    };
    const std::string esn = "1c00 1700 00000000 05000000 06000000 07000000 08000000 09000000";
    const std::string longer = "2000 1700 01000000 02000000 03000000 04000000 05000000 06000000 ffffffff";
    const LogLine tx = xfrm(3, "%s(): Setting TX seq", cb), rx = xfrm(3, "%s(): Setting RX seq", cb);
    const LogLine extended = xfrm(3, "%s(): Replay Seq ESN: seq: %u oseq: %u", cb, 6, 5);

    afterDump("TX sends what was dumped last, which was RX's; RX sends zeros",
              replies({dumped("11223344 32 0200", kLocal, kRemote, "1000 0a00 01000000 02000000 03000000") +
                           dumped("55667788 32 0200", kRemote, kLocal, "1000 0a00 04000000 05000000 06000000"),
                       kEnd}),
              {tx, xfrm(3, "%s(): Replay Seq: seq: %u oseq: %u", cb, 2, 1), rx, xfrm(3, "%s(): Replay Seq: seq: %u oseq: %u", cb, 5, 4)},
              counters("60000000", txId, "1000 0a00 04000000 05000000 06000000"), counters("60000000", rxId, zeros));
    afterDump("after an extended record of TX, what is dumped last is sent as such, of RX and longer though it be",
              replies({dumped("11223344 32 0200", kLocal, kRemote, esn, "0c010000"), dumped("55667788 32 0200", kRemote, kLocal, longer, "10010000"), kEnd}),
              {tx, extended, rx, xfrm(3, "%s(): Replay Seq ESN: seq: %u oseq: %u", cb, 3, 2)}, counters("6c000000", txId, "1c00" + longer.substr(4, 59)),
              counters("60000000", rxId, zeros));
    afterDump("one of RX is sent for TX, as 12 bytes", replies({dumped("55667788 32 0200", kRemote, kLocal, esn, "0c010000"), kEnd}), {rx, extended},
              counters("60000000", none, "1000 0a00 00000000 05000000 06000000"), counters("60000000", rxId, zeros));
    afterDump("records that are too short", replies({dumped("11223344 32 0200", kLocal, kRemote, "0c00 0a00 8*01 1800 1700 20*01", "14010000"), kEnd}), {tx},
              counters("60000000", txId, zeros), counters("60000000", none, zeros));
    afterDump("a dump that fails half-way stops nothing, and what it had read counts", {replies({kTx})[0], failedReceive(EIO)},
              {tx, core(4, "%s(): receiving NL dump failed. errno=[%d %s]", "messageDump", EIO, "Input/output error"), xfrm(4, "%s(): failed to query XFRM", name)},
              counters("60000000", txId, zeros), counters("60000000", none, zeros));

    const LogLine seqNotSent = xfrm(4, "%s(): sending XFRM state failed\n", "updateXFRMSeq");
    const std::vector<Reply> no{refusal(-ESRCH)};
    notable("TX fails: nothing else is tried", update(v4()), -1, kAnything,
            Log{updates[0], kNoEncap} + refusedBy(-ESRCH, kNotSent) + Log{xfrm(4, "%s(): updating TX XFRM state failed\n", name)}, {{}, no});
    notable("RX and TX's counters fail: RX's counters decide", update(v4()), 0, kAnything,
            Log{updates[0], kNoEncap, kAcked, updates[3], kNoEncap} + refusedBy(-ESRCH, kNotSent) + Log{xfrm(4, "%s(): updating RX XFRM state failed\n", name), updates[6]} +
                refusedBy(-ESRCH, seqNotSent) + Log{xfrm(4, "%s(): updating sequence TX failed\n", name), updates[8], kAcked},
            {{}, {}, no, no});
    notable("RX's counters fail", update(v4()), -1, kAnything,
            Log(updates.begin(), updates.end() - 1) + refusedBy(-ESRCH, seqNotSent) + Log{xfrm(4, "%s(): updating sequence RX failed\n", name)}, {{}, {}, {}, {}, no});
}

static const auto addPolicies = [](Record record, std::string source, std::string destination, unsigned char protocol, bool outbound) {
    return Operation([=]() mutable { return addXFRMPolicies(record, source, destination, protocol, outbound); });
};

static const auto removePolicies = [](std::string source, std::string destination, bool outbound, unsigned char protocol = 0) {
    return Operation([=]() mutable { return removeXFRMPolicies(source, destination, protocol, outbound); });
};

static LogLine saddr(const char* text, unsigned prefix) { return xfrm(2, "%s()\t..sel.saddr = %s/%u\n", "setXFRMSel", text, prefix); }

static LogLine daddr(const char* text, unsigned prefix) { return xfrm(2, "%s()\t..sel.daddr = %s/%u\n", "setXFRMSel", text, prefix); }

// What follows the selector in a policy: no limits, nothing used; priority, index, direction.
static std::string rest(const std::string& priority, const std::string& direction) { return " 32*ff 32*00 32*00 " + priority + " 00000000 " + direction + " 00 00 00 00000000"; }

TEST(Policies, SteerASelectorIntoATemplate)
{
    const char *all = "addXFRMPolicies", *id = "setXFRMIdFromBexa";
    const std::string head = "fc000000 1300 0500" + kSeqPid + "0a010000 12*00 0a000000 12*00 8*00 0200 10 08 11 3*00 00000000 00000000";
    const std::string tmplIn = " | 4400 0500" + kLocal + "55667788 32000000 0200 0000" + kRemote + "00000000 01 00 00 00 12*ff";
    const LogLine out = xfrm(3, "%s(): inserting output XFRM policy\n", all), in = xfrm(3, "%s(): inserting input XFRM policy\n", all);
    const LogLine fwd = xfrm(3, "%s(): inserting forward XFRM policy\n", all);
    const LogLine outFailed = xfrm(4, "%s(): setting outgoing XFRM policy failed\n", all);
    const Log exists = refusedBy(-EEXIST, xfrm(4, "%s(): sending XFRM policy failed\n", "addXFRMPolicy"));

    check("out, from its first to its last line", addPolicies(v4(), "10.0.0.0/8", "10.1.0.0/16", 17, true), 0,
          requests(NETLINK_XFRM, {head + rest("64000000", "01") + " | 4400 0500" + kRemote + "11223344 32000000 0200 0000" + kLocal + "00000000 01 00 00 00 12*ff"}),
          {out, saddr("10.0.0.0/8", 8), daddr("10.1.0.0/16", 16), xfrm(2, "%s()\t..sel.proto = %u\n", "setXFRMSel", 17), xfrm(2, "%s():\t..id.proto = %s\n", id, "esp"),
           xfrm(2, "%s():\t..saddr = %s\n", id, ""), xfrm(2, "%s():\t..id.daddr = %s\n", id, ""), xfrm(2, "%s():\t..id.spi = 0x%x\n", id, 0x11223344),
           xfrm(2, "%s():\t..mode = %s\n", "setXFRMMode", "tunnel"), xfrm(2, "%s(): \t..tmpl.family = AF_INET%s\n", "setXFRMTmpl", ""), kAcked});
    notable("in, then fwd", addPolicies(v4(), "10.0.0.0/8", "10.1.0.0/16", 17, false), 0,
            requests(NETLINK_XFRM, {head + rest("64000000", "00") + tmplIn, head + rest("64000000", "02") + tmplIn}), {in, kAcked, fwd, kAcked});
    Record mixed = v4();
    mixed.remote_addr = modemAddress("fe80::2");
    notable("the family of the source counts", addPolicies(mixed, "10.0.0.0/8", "10.1.0.0/16", 17, true), 0,
            requests(NETLINK_XFRM, {head + rest("64000000", "01") + " | 4400 0500" + kRemote6 + "11223344 32000000 0200 0000" + kLocal + "00000000 01 00 00 00 12*ff"}),
            {out, kAcked});
    notable("in exists: fwd is not tried", addPolicies(v4(), "10.0.0.1", "", 0, false), -1, kAnything,
            Log{in} + exists + Log{xfrm(4, "%s(): inserting incoming XFRM policy failed", all)}, {{refusal(-EEXIST)}});
    notable("fwd exists: in stays", addPolicies(v4(), "10.0.0.1", "", 0, false), -1, kAnything,
            Log{in, kAcked, fwd} + exists + Log{xfrm(4, "%s(): inserting forwarding XFRM policy failed\n", all)}, {{}, {refusal(-EEXIST)}});
    notable("out exists", addPolicies(v4(), "10.0.0.1", "", 0, true), -1, kAnything, Log{out} + exists + Log{outFailed}, {{refusal(-EEXIST)}});

    const auto refuses = [&](Change change, const char* source, const Log& log) {
        notable(source, addPolicies(v4(change), source, "", 0, true), -1, kNothing, Log{out} + log + Log{outFailed});
    };
    const LogLine badTemplate = xfrm(4, "%s(): setting policy templace failed\n", "addXFRMPolicy");
    refuses([](Record&) {}, "nonsense",
            {xfrm(4, "%s(): invalid IPv4 address %s\n", "setXFRMAddress", "nonsense"), xfrm(4, "%s(): setting selector source address failed\n", "setXFRMSel"),
             xfrm(4, "%s(): setting policy selector failed\n", "addXFRMPolicy")});
    refuses([](Record& r) { r.spi_tx_valid = r.encap_mode_valid = 0; }, "10.0.0.1",
            {xfrm(4, "%s(): %s SPI value is marked as invalid\n", id, "TX"), xfrm(4, "%s(): setting template ID failed\n", "setXFRMTmpl"), badTemplate});
    refuses([](Record& r) { r.encap_mode = 0; }, "10.0.0.1",
            {xfrm(4, "%s(): invalid XFRM mode 0x%x\n", "setXFRMMode", 0), xfrm(4, "%s(): setting templade mode failed\n", "setXFRMTmpl"), badTemplate});
}

TEST(Policies, AreRemovedBySelectorAndDirection)
{
    const char* all = "removeXFRMPolicies";
    const LogLine out = xfrm(3, "%s(): removing output XFRM policy\n", all), in = xfrm(3, "%s(): removing input XFRM policy\n", all);
    const LogLine fwd = xfrm(3, "%s(): removing forward XFRM policy\n", all);
    const LogLine outFailed = xfrm(4, "%s(): removing outgoing XFRM policy failed\n", all);
    const Log missing = refusedBy(-ENOENT, xfrm(4, "%s(): sending XFRM policy delete failed\n", "removeXFRMPolicy"));

    const auto selects = [&](const char* source, const char* destination, const Log& log, const std::string& selector) {
        check(source, removePolicies(source, destination, true), 0, requests(NETLINK_XFRM, {"50000000 1400 0500" + kSeqPid + selector + " 3*00 8*00 00000000 01 000000"}),
              Log{out} + log + Log{kAcked});
    };
    selects("10.0.0.0/8", "", {saddr("10.0.0.0/8", 8)}, "16*00 0a000000 12*00 8*00 0200 00 08 00");
    selects("", "fe80::1", {daddr("fe80::1", 128)}, "fe80 13*00 01 16*00 8*00 0a00 80 00 00");
    selects("192.0.2.1", "fe80::/0x40", {saddr("192.0.2.1", 32), daddr("fe80::/0x40", 64)},
            "fe80 14*00 c0000201 12*00 8*00 0a00 40 20 00"); // the destination's family stays
    selects("10.0.0.0/010", "10.0.0.0/300", {saddr("10.0.0.0/010", 8), daddr("10.0.0.0/300", 44)},
            "0a000000 12*00 0a000000 12*00 8*00 0200 2c 08 00"); // octal; the low 8 bits
    selects("10.0.0.0/x", "10.0.0.0/9/7", {saddr("10.0.0.0/x", 0), daddr("10.0.0.0/9/7", 9)},
            "0a000000 12*00 0a000000 12*00 8*00 0200 09 00 00");       // no number; a second slash
    const std::string cut = "10.0.0.0/" + std::string(53, '0') + "17"; // 64 characters, the last one is cut off
    selects(cut.c_str(), "", {saddr(cut.c_str(), 1)}, "16*00 0a000000 12*00 8*00 0200 00 01 00");

    selects("10.0.0.0/1:2", "", {saddr("10.0.0.0/1:2", 1)}, "16*00 0a000000 12*00 8*00 0200 00 01 00"); // a colon in the prefix
    const std::string pair = "10*00 0a000000 12*00 8*00 0200 00 20 11 3*00 8*00 00000000 ";
    notable("in, then fwd, of one protocol", removePolicies("10.0.0.0", "", false, 17), 0,
            requests(NETLINK_XFRM, {"50000000 1400 0500" + kSeqPid + "6*00 " + pair + "00 000000", "50000000 1400 0500" + kSeqPid + "6*00 " + pair + "02 000000"}),
            {in, kAcked, fwd, kAcked});

    const auto refuses = [&](const char* source, const char* destination, const Log& log) {
        notable(source, removePolicies(source, destination, true), -1, kNothing,
                Log{out} + log + Log{xfrm(4, "%s(): setting policy selector failed\n", "removeXFRMPolicy"), outFailed});
    };
    refuses("", "", {xfrm(4, "%s(): selector must have either source or destination\n", "setXFRMSel")});
    refuses("10.0.0.1", "host:name/64",
            {xfrm(4, "%s(): invalid IPv6 address %s\n", "setXFRMAddress", "host:name"), xfrm(4, "%s(): setting selector destination address failed\n", "setXFRMSel")});
    notable("out is missing", removePolicies("10.0.0.1", "", true), -1, kAnything, Log{out} + missing + Log{outFailed}, {{refusal(-ENOENT)}});
    notable("in is missing: fwd is not touched", removePolicies("10.0.0.1", "", false), -1, kAnything,
            Log{in} + missing + Log{xfrm(4, "%s(): removing incoming XFRM policy failed", all)}, {{refusal(-ENOENT)}});
    notable("fwd is missing", removePolicies("10.0.0.1", "", false), -1, kAnything,
            Log{in, kAcked, fwd} + missing + Log{xfrm(4, "%s(): removing forwarding XFRM policy failed\n", all)}, {{}, {refusal(-ENOENT)}});
}

TEST(Policies, LetLinkLocalICMPv6Bypass)
{
    const std::string selector = "fe80 14*00 16*00 8*00 0a00 40 00 3a 3*00 8*00";
    const Log selected{daddr("fe80::/64", 64), xfrm(2, "%s()\t..sel.proto = %u\n", "setXFRMSel", 58)};
    const auto addAndRemove = [] {
        const int added = addXFRMPolicyEx(2);
        return 10 * added + removeXFRMPolicyEx(2);
    };
    check("added, and removed with the same selector", addAndRemove, 0,
          requests(NETLINK_XFRM, {"b8000000 1300 0500" + kSeqPid + selector + rest("0a000000", "02"), "50000000 1400 0500" + kSeqPid + selector + "00000000 02 000000"}),
          selected + Log{kAcked} + selected + Log{kAcked});
    check("any direction is sent", [] { return addXFRMPolicyEx(3); }, -1, requests(NETLINK_XFRM, {"b8000000 1300 0500" + kSeqPid + selector + rest("0a000000", "03")}),
          selected + refusedBy(-EINVAL, xfrm(4, "%s(): sending XFRM policy failed\n", "addXFRMPolicyEx")), {{refusal(-EINVAL)}});
}

static Operation migrate(Record before, Record after)
{
    return [=]() mutable {
        std::string local = "10.0.0.0/8", remote = "10.1.0.0/16";
        return migrateXFRMInfo(before, after, local, remote, 17);
    };
}

TEST(Migration, MovesTheLocalAddressAndBackWhenItFails)
{
    const Change ah = [](Record& r) { r.ipsec_protocol = r.encap_mode = 2; };
    Record before = v4(ah), after = v4(ah);
    before.remote_addr.addr[5] = 9; // an IPv4 address is its first 4 bytes
    after.local_addr = modemAddress("fe80::9"), after.remote_addr.addr_len = 9;
    after.udp_encap_port_valid = after.udp_encap_valid = after.udp_encap = 1;
    after.udp_encap_port = 0x3412;
    const std::string moved = "fe80 13*00 09 ", there = "0a010000 12*00 ", here = "0a000000 12*00 ";
    const auto step = [&](const std::string& addresses, const std::string& families, const std::string& direction) {
        const std::string selector = direction == "01" ? there + here + "8*00 0200 10 08" : here + there + "8*00 0200 08 10";
        const std::string ports = direction == "01" ? " | 1c00 0400 0200 1234 1194 0000 16*00" : " | 1c00 0400 0200 1194 1234 0000 16*00";
        const bool back = families == "0a00 0200"; // the old record asks for no UDP
        return (back ? "a0000000" : "bc000000") + std::string(" 2100 0500") + kSeqPid + selector + " 11 3*00 8*00 00000000 " + direction + "000000 | 5000 1100" + addresses +
               "33 00 0000 00000000" + families + (back ? "" : ports);
    };
    const std::string out = step(kRemote + kLocal + kRemote + moved, "0200 0a00", "01");
    const std::string in = step(kLocal + kRemote + moved + kRemote, "0200 0a00", "00");
    const std::string fwd = step(kLocal + kRemote + moved + kRemote, "0200 0a00", "02");
    const std::string outBack = step(kRemote + moved + kRemote + kLocal, "0a00 0200", "01");
    const std::string inBack = step(moved + kRemote + kLocal + kRemote, "0a00 0200", "00");

    const char* all = "migrateXFRMInfo";
    const Log goOut{xfrm(3, "%s(): migrating outgoing XFRM info\n", all)};
    const Log goIn{xfrm(3, "%s(): migrating incoming XFRM info\n", all)};
    const Log goFwd{xfrm(3, "%s(): migrating forwarding XFRM info\n", all)};
    const Log yes{kAcked}, no = refusedBy(-ENOENT, xfrm(4, "%s(): sending XFRM migration failed\n", "migrateOneXFRM"));
    const LogLine noOut = xfrm(4, "%s(): migrating TX XFRM info failed\n", all), noIn = xfrm(4, "%s(): migrating RX XFRM info failed\n", all);
    const LogLine noFwd = xfrm(4, "%s(): migrating FWD XFRM info failed\n", all);
    const std::vector<Reply> refuse{refusal(-ENOENT)};

    Record unread = before;
    unread.encap_mode_valid = 0;
    notable("three directions; the mode is that of the new record", migrate(unread, after), 0, requests(NETLINK_XFRM, {out, in, fwd}), goOut + yes + goIn + yes + goFwd + yes);
    notable("out fails: nothing to move back", migrate(before, after), -1, requests(NETLINK_XFRM, {out}), goOut + no + Log{noOut}, {refuse});
    notable("in fails: out is moved back, which fails too", migrate(before, after), -1, requests(NETLINK_XFRM, {out, in, outBack}),
            goOut + yes + goIn + no + Log{noIn, kNoEncap} + no + Log{xfrm(4, "%s(): rolling back TX XFRM migration failed\n", all)}, {{}, refuse, refuse});
    notable("fwd fails: in, which fails too, and out are moved back", migrate(before, after), -1, requests(NETLINK_XFRM, {out, in, fwd, inBack, outBack}),
            goOut + yes + goIn + yes + goFwd + no + Log{noFwd, kNoEncap} + no + Log{xfrm(4, "%s(): rolling back RX XFRM migration failed\n", all), kNoEncap} + yes,
            {{}, {}, refuse, refuse});

    const auto refuses = [](Change toBoth, Change toNew, const Log& log) {
        Record changed = v4(toBoth);
        toNew(changed);
        notable(log.front().text.c_str(), migrate(v4(toBoth), changed), -1, kNothing, log);
    };
    const Change same = [](Record&) {};
    const LogLine peer = xfrm(4, "%s(): remote address has changed\n", all);
    refuses(same, [](Record& r) { r.encap_mode = r.ipsec_protocol = r.remote_addr.ip_type = 2; }, {xfrm(4, "%s(): XFRM mode has changed\n", all)});
    refuses(same, [](Record& r) { r.ipsec_protocol = 2; }, {xfrm(4, "%s(): XFRM protocol has changed\n", all)});
    refuses(same, [](Record& r) { r.remote_addr.addr[3] ^= 1; }, {peer});
    refuses(same, [](Record& r) { r.remote_addr.ip_type = 6; }, {peer});
    refuses([](Record& r) { r.remote_addr.ip_type = 5; }, same, {peer});
    refuses([](Record& r) { r.remote_addr = modemAddress("fe80::1"), r.remote_addr.addr_len = 8; }, [](Record& r) { r.remote_addr.addr[15] = 2; }, {peer});
    refuses([](Record& r) { r.ipsec_protocol = 0x103; }, same, {goOut[0], xfrm(4, "%s(): invalid IPSEC protocol %d\n", "migrateOneXFRM", 0x103), noOut});
    refuses([](Record& r) { r.encap_mode = 0; }, same,
            {goOut[0], xfrm(4, "%s(): invalid XFRM mode 0x%x\n", "setXFRMMode", 0), xfrm(4, "%s(): setting XFRM state mode failed\n", "migrateOneXFRM"), noOut});
    std::string nonsense = "nonsense", there2 = "10.1.0.0/16";
    Record copy = v4();
    notable("no selector", [&] { return migrateXFRMInfo(copy, copy, nonsense, there2, 0); }, -1, kNothing,
            {goOut[0], kNoEncap, xfrm(4, "%s(): invalid IPv4 address %s\n", "setXFRMAddress", "nonsense"), xfrm(4, "%s(): setting selector source address failed\n", "setXFRMSel"),
             xfrm(4, "%s(): setting policy selector failed\n", "migrateOneXFRM"), noOut});
}
