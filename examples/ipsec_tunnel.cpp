// An IPsec tunnel on real traffic. Two network namespaces, joined by a link, play a handset and its gateway:
//
//     handset                                              gateway
//     10.0.0.1 == 192.0.2.1 ------------ link ------------ 192.0.2.254 == 10.1.0.1
//
// The library installs the tunnel at both ends. Ping crosses it; a capture of the link shows what really crossed. Then
// the handset's address changes, and the tunnel moves with it while ping goes on.
//
// Needs root, iproute2, ping, tcpdump and /etc/protocols; `./dev demo` gives it a kernel to throw away. Ends with 1
// when anything is not as it says.

#include <vesk/netlink.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/xfrm.h>
#include <sched.h>
#include <unistd.h>

using Record = tro_ipsec_static_sa_config_ex_info_ind_msg_v01;

namespace {

constexpr auto kTechnology   = static_cast<tro_technology_name_enum_v01>(0);
constexpr unsigned int kMark = 0x1, kMask = 0xff;

// Telling and checking

int surprises = 0;

void title(const char* text)
{
    std::printf("\n%s\n", text);
}

void expect(const std::string& what, bool holds)
{
    std::printf("  %s %s\n", holds ? "ok  " : "FAIL", what.c_str());
    surprises += holds ? 0 : 1;
}

// The output of a command, without the line feed at its end.
std::string output(const std::string& command)
{
    std::FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        throw std::runtime_error(command);
    std::string text;
    char piece[256];
    while (std::fgets(piece, sizeof piece, pipe) != nullptr)
        text += piece;
    pclose(pipe);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

void run(const std::string& command)
{
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error(command);
}

bool contains(const std::string& text, const std::string& piece)
{
    return text.find(piece) != std::string::npos;
}

// A network namespace. Sockets belong to the namespace that their thread is in when it opens them, so that a call of
// the library changes the host that it is made at.
class Host {
public:
    explicit Host(std::string given) : name(std::move(given))
    {
        ::run("ip netns add " + name);
        own = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    }
    ~Host()
    {
        close(own);
        static_cast<void>(::output("ip netns del " + name));
    }
    Host(const Host&)            = delete;
    Host& operator=(const Host&) = delete;

    void expect(const std::string& what, const std::function<int()>& call) const
    {
        if (setns(own, CLONE_NEWNET) != 0)
            throw std::runtime_error("setns");
        ::expect(name + ": " + what, call() == 0);
    }
    std::string command(const std::string& text) const { return "ip netns exec " + name + ' ' + text; }
    void run(const std::string& text) const { ::run(command(text)); }
    std::string output(const std::string& text) const { return ::output(command(text)); }

    const std::string name;

private:
    int own;
};

// The record, as the modem fills it

tro_ip_addr_type_v01 address(const char* text)
{
    in_addr network = {};
    inet_pton(AF_INET, text, &network);
    const std::uint32_t host = ntohl(network.s_addr); // the modem keeps IPv4 addresses in host order

    tro_ip_addr_type_v01 address = {};
    address.ip_type              = TRO_IP_TYPE_IPV4_V01;
    address.addr_len             = sizeof host;
    std::memcpy(address.addr, &host, sizeof host);
    return address;
}

void setKeys(Record& record, std::uint8_t first)
{
    record.crypto_key_tx_valid = record.crypto_key_rx_valid = 1;
    record.hash_key_tx_valid = record.hash_key_rx_valid = 1;
    record.crypto_key_tx_len = record.crypto_key_rx_len = 16;
    record.hash_key_tx_len = record.hash_key_rx_len = 32;
    std::fill_n(record.crypto_key_tx, 16, first);
    std::fill_n(record.crypto_key_rx, 16, first + 1);
    std::fill_n(record.hash_key_tx, 32, first + 2);
    std::fill_n(record.hash_key_rx, 32, first + 3);
}

Record handsetRecord(const char* local)
{
    Record record       = {};
    record.spi_tx_valid = record.spi_rx_valid = 1;
    record.spi_tx                             = 0x1001;
    record.spi_rx                             = 0x2002;
    record.ipsec_protocol_valid = record.encap_mode_valid = 1;
    record.ipsec_protocol                                 = TRO_IPSEC_PROTOCOL_ESP_V01;
    record.encap_mode                                     = TRO_IPSEC_ENCAP_MODE_TUNNEL_V01;
    record.remote_addr_valid = record.local_addr_valid = 1;
    record.remote_addr                                 = address("192.0.2.254");
    record.local_addr                                  = address(local);
    record.hash_algo_valid = record.crypto_algo_valid = 1;
    record.hash_algo                                  = TRO_IPSEC_HASH_ALGO_SHA256_V01;
    record.crypto_algo = TRO_IPSEC_CRYPTO_ALGO_AES_V01; // in CBC mode, when nothing else is said
    setKeys(record, 0x10);
    return record;
}

// What the handset sends, the gateway receives, and the other way round.
Record gatewayRecord(const Record& handset)
{
    Record gateway = handset;
    std::swap(gateway.spi_tx, gateway.spi_rx);
    std::swap(gateway.local_addr, gateway.remote_addr);
    std::swap(gateway.crypto_key_tx, gateway.crypto_key_rx);
    std::swap(gateway.hash_key_tx, gateway.hash_key_rx);
    return gateway;
}

// The tunnel at one end

struct End {
    const Host& host;
    std::string inside;  // what this end sends from
    std::string outside; // what it sends to

    // Policies first in, last out: without them what the SAs decrypt would be answered in the clear.
    void install(Record& record)
    {
        host.expect("addXFRMPolicies installs the out policy",
                    [&] { return Vesk::addXFRMPolicies(record, inside, outside, 0, true); });
        host.expect("addXFRMPolicies installs the in and fwd policies",
                    [&] { return Vesk::addXFRMPolicies(record, outside, inside, 0, false); });
        host.expect("addXFRMStates installs both SAs",
                    [&] { return Vesk::addXFRMStates(record, kTechnology, kMark, kMask); });
    }

    void remove(Record& record)
    {
        host.expect("removeXFRMStates removes both SAs", [&] { return Vesk::removeXFRMStates(record); });
        host.expect("removeXFRMPolicies removes the out policy",
                    [&] { return Vesk::removeXFRMPolicies(inside, outside, 0, true); });
        host.expect("removeXFRMPolicies removes the in and fwd policies",
                    [&] { return Vesk::removeXFRMPolicies(outside, inside, 0, false); });
    }
};

// Traffic and witnesses

// Asks 10.1.0.1 five times a second, in the background.
class Ping {
public:
    Ping(const Host& host, int count)
        : pipe(popen(host.command("ping -q -i 0.2 -W 1 -c " + std::to_string(count) + " 10.1.0.1").c_str(), "r"))
    {
        if (pipe == nullptr)
            throw std::runtime_error("ping");
    }
    ~Ping() { pclose(pipe); }
    Ping(const Ping&)            = delete;
    Ping& operator=(const Ping&) = delete;

    // Waits for the end; how many answers came.
    int answers()
    {
        int received = -1;
        char line[256];
        while (std::fgets(line, sizeof line, pipe) != nullptr)
            std::sscanf(line, "%*d packets transmitted, %d received", &received);
        return received;
    }

private:
    std::FILE* pipe;
};

// Everything that a host puts on the link. (What arrives is no proof: the kernel shows it again when it is decrypted.)
class Capture {
public:
    explicit Capture(const Host& host) : file(output("mktemp -p /run"))
    {
        const std::string tcpdump = "tcpdump --immediate-mode -U -Z root -Q out -i radio -w " + file + " 2>&1";
        pipe                      = popen(("echo $$; exec " + host.command(tcpdump)).c_str(), "r");
        char listening[256];
        if (pipe == nullptr || std::fscanf(pipe, "%d ", &process) != 1 ||
            std::fgets(listening, sizeof listening, pipe) == nullptr)
            throw std::runtime_error(tcpdump);
    }
    ~Capture()
    {
        kill(process, SIGTERM);
        pclose(pipe);
        unlink(file.c_str());
    }
    Capture(const Capture&)            = delete;
    Capture& operator=(const Capture&) = delete;

    std::string packets(const std::string& filter, const std::string& options = "") const
    {
        return output("tcpdump -tnr " + file + ' ' + options + " '" + filter + "' 2>/dev/null");
    }
    int count(const std::string& filter) const
    {
        const std::string all = packets(filter);
        return all.empty() ? 0 : 1 + static_cast<int>(std::count(all.begin(), all.end(), '\n'));
    }

private:
    const std::string file;
    std::FILE* pipe;
    pid_t process = 0;
};

// What `ip -s xfrm state` says about the SA that sends from one address.
struct Counters {
    unsigned int sequence = 0;
    int packets           = 0;
    std::string text;

    Counters(const Host& host, const std::string& source) : text(host.output("ip -s xfrm state list src " + source))
    {
        const char* anti    = std::strstr(text.c_str(), "oseq ");
        const char* current = std::strstr(text.c_str(), "lifetime current:");
        if (anti == nullptr || current == nullptr || std::sscanf(anti, "oseq %x", &sequence) != 1 ||
            std::sscanf(current, "lifetime current: %*d(bytes), %d(packets)", &packets) != 1)
            expect("an SA from " + source, false);
    }
};

bool empty(const Host& host)
{
    return host.output("ip xfrm state").empty() && host.output("ip xfrm policy").empty();
}

void demonstrate()
{
    title("1. A handset and a gateway, each a network of its own, joined by a link");
    Host handset("handset"), gateway("gateway");
    run("ip link add name radio netns handset type veth peer name radio netns gateway");
    const auto connect = [](const Host& host, const std::string& outer, const std::string& inner,
                            const std::string& beyond) {
        host.run("ip address add " + outer + "/24 dev radio");
        host.run("ip address add " + inner + "/16 dev lo");
        host.run("ip link set lo up");
        host.run(
            "sh -c 'echo 1 >/proc/sys/net/ipv4/conf/all/promote_secondaries'"); // a second address outlives the first
        host.run("ip link set radio up");
        host.run("ip route add " + beyond + " dev radio src " + inner);
    };
    connect(handset, "192.0.2.1", "10.0.0.1", "10.1.0.0/16");
    connect(gateway, "192.0.2.254", "10.1.0.1", "10.0.0.0/16");
    const Capture fromHandset(handset), fromGateway(gateway);

    title("2. The tunnel: ESP, AES-CBC with HMAC-SHA-256, each end from its half of one record");
    Record atHandset = handsetRecord("192.0.2.1");
    Record atGateway = gatewayRecord(atHandset);
    End here{handset, "10.0.0.0/16", "10.1.0.0/16"}, there{gateway, "10.1.0.0/16", "10.0.0.0/16"};
    here.install(atHandset);
    there.install(atGateway);
    handset.expect("addXFRMPolicyEx lets link-local ICMPv6 past it",
                   [] { return Vesk::addXFRMPolicyEx(XFRM_POLICY_OUT); });
    expect("the kernel lists that policy", contains(handset.output("ip xfrm policy"), "dst fe80::/64 proto ipv6-icmp"));

    title("3. Ping crosses");
    expect("5 of 5 answers", Ping(handset, 5).answers() == 5);
    expect("the handset's SAs carried 5 packets out and 5 in",
           Counters(handset, "192.0.2.1").packets == 5 && Counters(handset, "192.0.2.254").packets == 5);

    title("4. The handset moves to 192.0.2.9 while ping goes on, and the tunnel with it");
    Record moved = handsetRecord("192.0.2.9");
    int answers  = 0;
    {
        Ping going(handset, 15);
        usleep(600000);
        const auto start = std::chrono::steady_clock::now();
        handset.run("ip address add 192.0.2.9/24 dev radio");
        handset.expect("migrateXFRMInfo moves both SAs and the three policies",
                       [&] { return Vesk::migrateXFRMInfo(atHandset, moved, here.inside, here.outside, 0); });
        handset.run("ip address del 192.0.2.1/24 dev radio");
        there.remove(atGateway); // to the gateway it is the peer that moved, so it starts anew
        atGateway = gatewayRecord(moved);
        there.install(atGateway);
        const auto meanwhile = (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(200);
        answers              = going.answers();
        expect(std::to_string(answers) + " of 15 answers; the move took the time of " + std::to_string(meanwhile) +
                   ", which may be lost, and two more",
               answers >= 13 - meanwhile);
    }
    // Of 20 packets, the kernel forgets one that it sends while it copies the SA.
    const Counters carried(handset, "192.0.2.9");
    expect("the SA went on where it was: it has carried " + std::to_string(carried.packets),
           carried.packets >= 19 && carried.sequence == static_cast<unsigned int>(carried.packets));
    expect("the old address is in no policy", handset.output("ip xfrm policy | grep -wF 192.0.2.1").empty());

    title("5. New keys, under the same SPIs: others would need new policies, too");
    setKeys(moved, 0x50);
    atGateway = gatewayRecord(moved);
    handset.expect("updateXFRMStates updates both SAs",
                   [&] { return Vesk::updateXFRMStates(moved, kTechnology, kMark, 0xfff); });
    const Counters updated(handset, "192.0.2.9");
    expect("the kernel keeps the sequence counter and takes the new mask",
           updated.sequence == carried.sequence && contains(updated.text, "output-mark 0x20001/0x20fff"));
    expect("a mainline kernel keeps the keys of an existing SA",
           contains(updated.text, "0x10101010101010101010101010101010"));
    here.remove(moved);
    there.remove(atGateway);
    here.install(moved);
    there.install(atGateway);
    expect("so the SAs are installed anew, and have the new ones",
           contains(Counters(handset, "192.0.2.9").text, "0x50505050505050505050505050505050"));
    expect("5 of 5 answers", Ping(handset, 5).answers() == 5);

    title("6. What was on the link");
    std::printf("%s\n  ...\n", fromHandset.packets("esp", "-c 3").c_str());
    expect("ESP from the handset: " + std::to_string(fromHandset.count("esp")) + " packets",
           fromHandset.count("esp") == 25);
    expect("ESP from the gateway: " + std::to_string(fromGateway.count("esp")) + " packets",
           fromGateway.count("esp") >= 10 + answers);
    expect("each under the SPI that the handset sends with", fromHandset.count("esp and ip[20:4] = 0x1001") == 25);
    expect("nothing in the clear",
           fromHandset.count("ip and not esp") == 0 && fromGateway.count("ip and not esp") == 0);

    title("7. All is removed");
    here.remove(moved);
    there.remove(atGateway);
    handset.expect("removeXFRMPolicyEx removes the bypass", [] { return Vesk::removeXFRMPolicyEx(XFRM_POLICY_OUT); });
    expect("the kernel's tables are empty, at both ends", empty(handset) && empty(gateway));
}

} // namespace

int main()
{
    std::setvbuf(stdout, nullptr, _IONBF, 0); // between the lines of the log
    try {
        demonstrate();
    } catch (const std::exception& error) {
        expect(std::string("could be run: ") + error.what(), false);
    }
    std::printf(surprises == 0 ? "\nAll as it should be.\n" : "\n%d things are not as they should be.\n", surprises);
    return surprises == 0 ? 0 : 1;
}
