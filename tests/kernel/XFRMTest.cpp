// IPsec on a real kernel; compared with what `ip xfrm` shows.
#include <RealKernel.h>
#include <vesk/netlink.h>

#include <gtest/gtest.h>

#include <Records.h>

#include <algorithm>

#include <linux/xfrm.h>

using namespace Vesk;
using namespace Vesk::Testing;
using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;

static const auto kTechnology = static_cast<tro_technology_name_enum_v01>(0);

static void expectListed(const std::string& command, std::initializer_list<const char*> pieces)
{
    EXPECT_EQ(lacking(command, pieces), "");
}

struct States : testing::Test {
    void SetUp() override
    {
        if (!succeeds("ip xfrm state add src 192.0.2.1 dst 192.0.2.2 proto esp spi 1"
                      " enc 'cbc(aes)' 0x00112233445566778899aabbccddeeff"))
            GTEST_SKIP() << "this kernel has no ESP";
        output("ip xfrm state flush");
    }
};

TEST_F(States, AreInstalledWithEveryFieldAndRemoved)
{
    Record record               = espTunnel("192.0.2.1", "198.51.100.7");
    record.udp_encap_port_valid = record.udp_encap_valid = record.udp_encap = 1;
    record.udp_encap_port                                                   = 0x3412; // 0x1234 in network order
    ASSERT_EQ(addXFRMStates(record, TRO_TECHNOLOGY_NAME_MARKED_RX_V01, 0x1, 0xff), 0);
    expectListed("ip xfrm state list src 192.0.2.1",
                 {"dst 198.51.100.7", "proto esp spi 0x11223344 reqid 0 mode tunnel",
                  "replay-window 0 flag nopmtudisc af-unspec\n", "output-mark 0x20001/0x200ff",
                  "auth-trunc hmac(sha256) 0xa1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1 128\n",
                  "enc cbc(aes) 0xc1c1c1c1c1c1c1c1c1c1c1c1c1c1c1c1\n",
                  "encap type espinudp sport 4660 dport 4500 addr 0.0.0.0"});
    expectListed("ip xfrm state list src 198.51.100.7",
                 {"dst 192.0.2.1", "proto esp spi 0x55667788", "flag af-unspec\n", "output-mark 0x20002/0xffffffff",
                  "auth-trunc hmac(sha256) 0xa2a2", "enc cbc(aes) 0xc2c2", "sport 4500 dport 4660"});
    expectListed("ip -s xfrm state",
                 {"limit: soft (INF)(bytes), hard (INF)(bytes)", "limit: soft (INF)(packets), hard (INF)(packets)",
                  "expire add: soft 0(sec), hard 0(sec)"});

    EXPECT_EQ(removeXFRMStates(record), 0);
    EXPECT_EQ(output("ip xfrm state"), "");
}

TEST_F(States, TakeEveryAlgorithm)
{
    const auto installs = [](const char* local, const char* remote, std::uint32_t protocol, std::uint32_t mode,
                             std::uint32_t cipher, std::uint32_t aesMode, std::uint32_t cipherKey, std::uint32_t hash,
                             std::uint32_t hashKey, std::initializer_list<const char*> pieces) {
        Record record            = espTunnel(local, remote);
        record.ipsec_protocol    = protocol;
        record.encap_mode        = mode;
        record.crypto_algo       = cipher;
        record.aes_mode          = aesMode;
        record.aes_mode_valid    = 1;
        record.hash_algo         = hash;
        record.crypto_key_tx_len = record.crypto_key_rx_len = cipherKey;
        record.hash_key_tx_len = record.hash_key_rx_len = hashKey;
        for (std::uint8_t i = 0; i < 64; ++i) // DES wants keys that are not weak
            record.crypto_key_tx[i] = record.crypto_key_rx[i] = record.hash_key_tx[i] = record.hash_key_rx[i] = i;
        EXPECT_EQ(addXFRMStates(record, kTechnology, 0, 0), 0) << *pieces.begin();
        expectListed("ip xfrm state", pieces);
        EXPECT_EQ(removeXFRMStates(record), 0);
        EXPECT_EQ(output("ip xfrm state"), "");
    };
    const char *local = "192.0.2.1", *remote = "198.51.100.7", *local6 = "2001:db8::1", *remote6 = "2001:db8::2";
    installs(local, remote, 3, 1, 9, 1, 8, 7, 16,
             {"enc cbc(des) 0x0001020304050607\n", "auth-trunc hmac(md5) 0x000102030405060708090a0b0c0d0e0f 96"});
    installs(local, remote, 3, 2, 10, 1, 24, 5, 20,
             {"enc cbc(des3_ede) 0x", "auth-trunc hmac(sha1) 0x000102030405060708090a0b0c0d0e0f10111213 96",
              "mode transport"});
    installs(local6, remote6, 3, 1, 12, 2, 20, 12, 16,
             {"enc rfc3686(ctr(aes)) 0x000102030405060708090a0b0c0d0e0f10111213\n", "auth-trunc xcbc(aes) 0x",
              "src 2001:db8::1 dst 2001:db8::2"});
    installs(local6, remote6, 3, 2, 19, 1, 32, 20, 48,
             {"enc cbc(aes) 0x", "auth-trunc hmac(sha384) 0x", "mode transport"});
    installs(local, remote, 3, 1, 12, 1, 24, 21, 64, {"enc cbc(aes) 0x", "auth-trunc hmac(sha512) 0x", " 256\n"});
}

// Mainline's AH takes no cipher, but the request always carries one. Finding and removing does work.
TEST_F(States, OfAHAreRefusedForTheirCipher)
{
    Record record         = espTunnel("192.0.2.1", "198.51.100.7");
    record.ipsec_protocol = 2;
    EXPECT_EQ(reason(addXFRMStates(record, kTechnology, 0, 0)), EINVAL);

    output("ip xfrm state add src 192.0.2.1 dst 198.51.100.7 proto ah spi 0x11223344 mode tunnel"
           " auth-trunc 'hmac(sha1)' 0x000102030405060708090a0b0c0d0e0f10111213 96");
    EXPECT_EQ(removeXFRMStates(record), 0);
    EXPECT_EQ(output("ip xfrm state"), "");
}

TEST_F(States, OfStrangersStay)
{
    Record record = espTunnel("192.0.2.1", "198.51.100.7"), stranger = espTunnel("192.0.2.3", "198.51.100.8");
    ASSERT_EQ(addXFRMStates(record, kTechnology, 0, 0) + addXFRMStates(stranger, kTechnology, 0, 0), 0);
    EXPECT_EQ(removeXFRMStates(record), 0);
    EXPECT_EQ(output("ip xfrm state | grep ^src"), "src 198.51.100.8 dst 192.0.2.3\nsrc 192.0.2.3 dst 198.51.100.8\n");
    EXPECT_EQ(removeXFRMStates(stranger), 0);
}

// More than a kernel puts into two datagrams, of 8 KiB at most: the record's pair is in the first, or in the last.
TEST_F(States, AreFoundAmongAHundred)
{
    const char* const strangers =
        "seq 100 | sed 's/.*/xfrm state add src 192.0.2.1 dst 203.0.113.& proto esp spi & enc cbc(aes) "
        "0x00112233445566778899aabbccddeeff auth-trunc hmac(sha256) 0x00112233445566778899 128/' | ip -batch -";
    Record record = espTunnel("192.0.2.1", "198.51.100.7");
    for (const bool first : {true, false}) {
        if (!first)
            output(strangers);
        ASSERT_EQ(addXFRMStates(record, kTechnology, 0, 0), 0);
        if (first)
            output(strangers);
        LogCapture log;
        EXPECT_EQ(updateXFRMStates(record, kTechnology, 1, 0xff), 0);
        const auto says = [&](const char* text) {
            return std::count_if(log.lines.begin(), log.lines.end(),
                                 [text](const LogLine& line) { return line.text == text; });
        };
        EXPECT_EQ(says("queryXFRMStateCb(): Setting TX seq") * 10 + says("queryXFRMStateCb(): Setting RX seq"), 11)
            << first;
        EXPECT_EQ(removeXFRMStates(record), 0);
        EXPECT_EQ(output("ip xfrm state | grep -c ^src; ip xfrm state | grep -c 198.51.100.7 || true"), "100\n0\n")
            << first;
        output("ip xfrm state flush");
    }
}

TEST_F(States, AreUpdatedInPlace)
{
    Record record = espTunnel("192.0.2.1", "198.51.100.7");
    LogCapture log;
    EXPECT_EQ(reason(updateXFRMStates(record, kTechnology, 1, 0xff)), ESRCH) << "there are none";
    const std::string keys =
        " mode tunnel enc 'cbc(aes)' 0x00112233445566778899aabbccddeeff"
        " auth-trunc 'hmac(sha256)' 0x0011223344556677889900112233445566778899001122334455667788990011 128";
    output("ip xfrm state add src 192.0.2.1 dst 198.51.100.7 proto esp spi 0x11223344 replay-oseq 7" + keys);
    output("ip xfrm state add src 198.51.100.7 dst 192.0.2.1 proto esp spi 0x55667788 replay-seq 9" + keys);
    EXPECT_EQ(updateXFRMStates(record, kTechnology, 2, 0xfff), 0);
    expectListed("ip xfrm state list src 192.0.2.1", {"output-mark 0x20002/0x20fff", "oseq 0x7"});
    expectListed("ip xfrm state list src 198.51.100.7", {"seq 0x9, oseq 0x0"});
    EXPECT_EQ(removeXFRMStates(record), 0);
}

TEST(Policies, AreListedWithTheirTemplates)
{
    Record record    = espTunnel("192.0.2.1", "198.51.100.7");
    std::string here = "10.0.0.0/8", there = "10.1.0.0/0x10";
    ASSERT_EQ(addXFRMPolicies(record, here, there, 17, true), 0);
    ASSERT_EQ(addXFRMPolicies(record, there, here, 17, false), 0);
    expectListed("ip xfrm policy list dir out",
                 {"src 10.0.0.0/8 dst 10.1.0.0/16 proto udp", "dir out priority 100",
                  "tmpl src 192.0.2.1 dst 198.51.100.7", "proto esp spi 0x11223344 reqid 0 mode tunnel"});
    for (const char* direction : {"in", "fwd"})
        expectListed(std::string("ip xfrm policy list dir ") + direction,
                     {"src 10.1.0.0/16 dst 10.0.0.0/8 proto udp", "priority 100", "tmpl src 198.51.100.7 dst 192.0.2.1",
                      "spi 0x55667788"});

    EXPECT_EQ(removeXFRMPolicies(here, there, 17, true) + removeXFRMPolicies(there, here, 17, false), 0);
    EXPECT_EQ(output("ip xfrm policy"), "");
}

TEST(Policies, LetLinkLocalICMPv6Bypass)
{
    for (const unsigned char direction : {XFRM_POLICY_IN, XFRM_POLICY_OUT, XFRM_POLICY_FWD}) {
        EXPECT_EQ(addXFRMPolicyEx(direction), 0);
    }
    expectListed("ip xfrm policy", {"src ::/0 dst fe80::/64 proto ipv6-icmp", "dir in priority 10",
                                    "dir out priority 10", "dir fwd priority 10"});
    for (const unsigned char direction : {XFRM_POLICY_IN, XFRM_POLICY_OUT, XFRM_POLICY_FWD})
        EXPECT_EQ(removeXFRMPolicyEx(direction), 0);
    EXPECT_EQ(output("ip xfrm policy"), "");
}

TEST_F(States, MigrateThereAndBack)
{
    Record record = espTunnel("192.0.2.1", "198.51.100.7"), moved = espTunnel("192.0.2.9", "198.51.100.7");
    std::string here = "10.0.0.0/8", there = "10.1.0.0/16";
    EXPECT_EQ(reason(migrateXFRMInfo(record, moved, here, there, 0)), ENOENT) << "nothing to move";
    ASSERT_EQ(addXFRMStates(record, kTechnology, 0, 0), 0);
    ASSERT_EQ(addXFRMPolicies(record, here, there, 0, true) + addXFRMPolicies(record, there, here, 0, false), 0);
    const std::string before = output("ip xfrm policy");

    ASSERT_EQ(migrateXFRMInfo(record, moved, here, there, 0), 0);
    EXPECT_EQ(output("ip xfrm state | grep ^src | sort"),
              "src 192.0.2.9 dst 198.51.100.7\nsrc 198.51.100.7 dst 192.0.2.9\n");
    EXPECT_EQ(output("ip xfrm policy | grep -c 'tmpl.* 192.0.2.9'"), "3\n");
    ASSERT_EQ(migrateXFRMInfo(moved, record, here, there, 0), 0);
    EXPECT_EQ(output("ip xfrm policy"), before);

    EXPECT_EQ(removeXFRMPolicies(there, here, 0, false), 0);
    EXPECT_EQ(reason(migrateXFRMInfo(record, moved, here, there, 0)), ENOENT) << "in has no policy: out is moved back";
    expectListed("ip xfrm policy", {"tmpl src 192.0.2.1 dst 198.51.100.7"});
    EXPECT_EQ(removeXFRMPolicies(here, there, 0, true) + removeXFRMStates(record), 0);
}
