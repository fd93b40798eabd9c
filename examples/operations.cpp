// Every operation but those of IPsec, on a real kernel, step by step: what is asked, what the kernel answers, and what
// iproute2 says of it. In a network of its own, which is gone with it (requires root). `./dev demo` gives it a kernel.

#include <vesk/netlink.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>

namespace {

int surprises = 0;

void title(const char* text)
{
    std::printf("\n== %s\n", text);
}

void expect(const char* what, bool holds)
{
    if (!holds)
        std::printf("  FAIL %s\n", what);
    surprises += holds ? 0 : 1;
}

// Says what is asked before it is, and what came of it. An operation prints its answer.
template <typename Operation>
void step(const char* question, int expected, Operation operation)
{
    std::printf("\n* %s\n", question);
    const int result = operation();
    if (result == 0)
        std::puts("  -> 0");
    else
        std::printf("  -> %d: %s\n", result, std::strerror(errno));
    expect(question, result == expected);
}

void show(const char* command)
{
    std::printf("  $ %s\n", command);
    expect(command, std::system(command) == 0);
}

sockaddr_storage ip(int family, const char* text)
{
    sockaddr_storage address = {};
    address.ss_family        = static_cast<sa_family_t>(family);
    if (family == AF_INET)
        inet_pton(family, text, &reinterpret_cast<sockaddr_in&>(address).sin_addr);
    else
        inet_pton(family, text, &reinterpret_cast<sockaddr_in6&>(address).sin6_addr);
    return address;
}

void families()
{
    title("Generic netlink families");
    unsigned short id = 0;
    step("Which number has the family \"nlctrl\"?", 0, [&] {
        std::string family = "nlctrl";
        const int result   = Vesk::queryGenericNetlinkFamily(family, 2, &id);
        std::printf("  it is %u\n", id);
        return result;
    });
    step("And the family \"nobody\"? There is none, so the kernel says ENOENT (errno 2).", -1, [&] {
        std::string family = "nobody";
        return Vesk::queryGenericNetlinkFamily(family, 2, &id);
    });
}

void labels(unsigned int index)
{
    title("IPv6 address labels");
    sockaddr_storage one = ip(AF_INET6, "2001:db8:1::"), two = ip(AF_INET6, "2001:db8:2::");
    unsigned int label = 0;
    step("Propose a label that nobody uses.", 0, [&] {
        const int result = Vesk::addrlabelGenerate(AF_INET6, false, &label);
        std::printf("  it is %u\n", label);
        return result;
    });
    step("Add it for 2001:db8:1::/48 on demo0.", 0, [&] { return Vesk::addrlabelAdd(&one, 48, label, index); });
    step("And for 2001:db8:2::/48.", 0, [&] { return Vesk::addrlabelAdd(&two, 48, label, index); });
    show("ip addrlabel | grep demo0");
    step("Add it again. It exists, so the kernel says EEXIST (errno 17).", -1,
         [&] { return Vesk::addrlabelAdd(&one, 48, label, index); });
    step("Delete the second.", 0, [&] { return Vesk::addrlabelDel(&two, 48, label, index); });
    step("Purge the first, with all that carry its label.", 0, [&] { return Vesk::addrlabelPurge(&one, 48, index); });
    show("! ip addrlabel | grep demo0");
}

void routes(unsigned int index)
{
    title("Routes");
    step("Which gateway leads to 198.51.100.7?", 0, [] {
        const Vesk::RouterAddressResult router = Vesk::RTNetlinkGetRoute("198.51.100.7", 0, AF_INET);
        std::printf("  it is %s\n", router.gateway.c_str());
        return router.status;
    });
    step("Install a route to it through that gateway, in table 1234.", 0,
         [=] { return Vesk::RTNetlinkAddRoute("198.51.100.7", 0, AF_INET, 1234, index); });
    show("ip route show table 1234");
    step("Remove it.", 0, [=] { return Vesk::RTNetlinkDeleteRoute("198.51.100.7", 0, AF_INET, 1234, index); });
    show("! ip route show table 1234 | grep .");
    step("10.0.0.300 is no address, so the kernel is not asked.", -1,
         [] { return Vesk::RTNetlinkGetRoute("10.0.0.300", 0, AF_INET).status; });
}

void rules(unsigned int index)
{
    title("Policy rules");
    show(("ip rule add priority 16000 fwmark 0x10/0xff table " + std::to_string(index + 1000)).c_str());
    step("Which mark has the rule of demo0?", 0, [] {
        const auto rule = Vesk::RTNetlinkGetRule("demo0");
        std::printf("  it is 0x%x/0x%x\n", rule.value_or(std::pair(0u, 0u)).first,
                    rule.value_or(std::pair(0u, 0u)).second);
        return rule.has_value() ? 0 : -1;
    });
}

void qdiscs(std::string device)
{
    title("Queueing disciplines");
    std::string kind = "fq_codel";
    step("Install fq_codel on demo0.", 0, [&] { return Vesk::RTNetlinkTCQdisc(device, kind, 0, 0x10000, 0); });
    show("tc qdisc show dev demo0");
    step("Remove it.", 0, [&] { return Vesk::RTNetlinkTCQdisc(device, kind, 0, 0x10000, 1); });
}

void platform(std::string device)
{
    title("What the platform's kernel accepts and a mainline kernel refuses");
    sockaddr_storage address = ip(AF_INET, "192.0.2.9");
    step("Put 192.0.2.9/24 on demo0. Mainline: EOPNOTSUPP (errno 95).", -1,
         [&] { return Vesk::RTNetlinkAddressCfg(device, &address, 24, Vesk::AddressAdd, 0); });
    step("Limit the GSO size of demo0 to 16384 bytes. Mainline: ERANGE (errno 34).", -1,
         [&] { return Vesk::RTNetlinkSetGSOMaxSize(device, 16384); });
    step("Install the platform's five bands on demo0. Mainline: EINVAL (errno 22).", -1,
         [&] { return Vesk::RTNetlinkTCPrio(device, 0, 0x10000, 0); });
    step("Install its three bands with flow control. Mainline: EINVAL (errno 22).", -1,
         [&] { return Vesk::RTNetlinkFlowControl(device, 0, 0x10000, 1, 0); });
}

} // namespace

int main()
{
    std::setvbuf(stdout, nullptr, _IONBF, 0); // between the lines of the log
    if (unshare(CLONE_NEWNET) != 0) {
        std::perror("operations: a network of its own requires root, ./dev demo does not");
        return 1;
    }

    title("A device to work on");
    show("ip link add demo0 type dummy && ip address add 192.0.2.1/24 dev demo0 && ip link set demo0 up");
    show("ip route add default via 192.0.2.254 && ip -brief address show dev demo0");
    const unsigned int index = if_nametoindex("demo0");

    families();
    labels(index);
    routes(index);
    rules(index);
    qdiscs("demo0");
    platform("demo0");

    std::printf(surprises == 0 ? "\nAll as expected.\n" : "\n%d steps went otherwise.\n", surprises);
    return surprises == 0 ? 0 : 1;
}
